// Who may do what on the system bus: the shipped policy, on a real bus, with connections of users
// that the bus and the kernel tell apart.
#include "SystemBus.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <map>
#include <regex>

namespace policy {
namespace {

struct Names {
  const char* user;
  std::vector<const char*> own;  // and no other of kAllNames; the first is its own
};
constexpr const char* kAllNames[] = {"zelt.service.Kova", "zelt.service.Config",
                                     "zelt.service.Upgrade", "zelt.tool.zeltcli-1", "zelt.New"};
const Names kNames[] = {
    {"kova", {"zelt.service.Kova", "zelt.service.Upgrade"}},
    {"zelt-config", {"zelt.service.Config", "zelt.service.Upgrade"}},
    {"peer", {"zelt.service.Upgrade"}},
    {"operator", {"zelt.tool.zeltcli-1"}},
    {"root", {"zelt.tool.zeltcli-1"}},
    {"stranger", {}},
};

// May `user` call it?
struct Call {
  const char* user;
  const char* to;  // who owns the name
  const char* interface;
  const char* member;
  bool allowed;
};
const Call kCalls[] = {
    {"peer", "kova", kServices, "Send", true},
    {"kova", "peer", kServices, "Send", true},
    {"kova", "operator", kServices, "Respond", true},
    {"operator", "kova", kServices, "Send", true},
    {"root", "kova", kServices, "Send", true},
    {"stranger", "kova", kServices, "Send", false},
    {"stranger", "operator", kServices, "Respond", false},
    {"kova", "zelt-config", kProperties, "Get", true},
    {"operator", "kova", kProperties, "Get", true},
    {"root", "kova", kProperties, "Get", true},
    {"stranger", "kova", kProperties, "Get", false},
    {"root", "kova", kProperties, "Set", true},
    {"peer", "kova", kProperties, "Set", false},
    {"operator", "kova", kProperties, "Set", false},
    {"stranger", "kova", kProperties, "Set", false},
};

struct Signals {
  const char* user;
  bool publishes, announces, hears;
};
const Signals kSignals[] = {
    {"kova", true, true, true},      {"zelt-config", true, true, true},
    {"peer", true, true, true},      {"root", false, true, true},
    {"operator", false, true, true}, {"stranger", false, false, false},
};

// The name under which a user's connection is called; "" when it has none.
std::string OwnName(std::string_view user) {
  const auto* const row = std::ranges::find(kNames, user, &Names::user);
  return row->own.empty() ? "" : row->own.front();
}

// One bus under `policies`: in what it is not as it should be.
class Trial {
 public:
  explicit Trial(const std::vector<std::string>& policies) : bus_(policies) {
    for (const User& user : kUsers) {
      connections_.emplace(user.name, std::make_unique<Connection>(bus_, user));
    }
    TryNames();
    TryCalls();
    TrySignals();
  }
  const std::string& Wrong() const { return wrong_; }

 private:
  Connection& Of(const std::string& user) { return *connections_.at(user); }

  void Expect(bool is, bool should, const std::string& what) {
    if (is != should) {
      wrong_ += what + (is ? ": allowed\n" : ": forbidden\n");
    }
  }

  void TryNames() {
    for (const auto& [user, own] : kNames) {
      for (const char* name : kAllNames) {
        const bool should = std::ranges::count(own, std::string_view(name)) > 0;
        // Others only try; what a connection may be called by, it keeps.
        const bool keeps = OwnName(user) == name && std::string_view(user) != "root";
        Connection visitor(bus_, UserNamed(user));
        Expect((keeps ? Of(user) : visitor).Own(name), should, user + std::string(" owns ") + name);
      }
    }
  }

  void TryCalls() {
    for (const auto& [user, to, interface, member, allowed] : kCalls) {
      const bool is = Of(user).Call(Of(to), OwnName(to).c_str(), interface, member);
      Expect(is, allowed, std::string(user) + " calls " + member + " of " + to);
    }
  }

  void TrySignals() {
    for (const auto& [user, publishes, announces, hears] : kSignals) {
      Connection published(bus_, UserNamed("peer"));
      published.Listen("Published");
      Of(user).Emit("Published");
      Expect(published.Heard() > 0, publishes, user + std::string(" publishes"));
      Connection announced(bus_, UserNamed("peer"));
      announced.Listen("Subscribed");
      Of(user).Emit("Subscribed");
      Expect(announced.Heard() > 0, announces, user + std::string(" announces a subscription"));
      Connection listener(bus_, UserNamed(user));
      listener.Listen("Published");
      Of("kova").Emit("Published");
      Expect(listener.Heard() > 0, hears, user + std::string(" hears what is published"));
    }
  }

  SystemBus bus_;
  std::map<std::string, std::unique_ptr<Connection>> connections_;
  std::string wrong_;
};

class PolicyTest : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    if (geteuid() == 0) {
      EnterWorldOfItsOwn();
    }
  }
  void SetUp() override {
    if (geteuid() != 0) {
      GTEST_SKIP() << "only root can be several users";
    }
    for (const char* path : {ZELT_POLICY, KOVA_POLICY}) {
      policies_.push_back(ReadFile(path));
    }
  }
  std::vector<std::string> policies_;
};

TEST_F(PolicyTest, EverybodyMayWhatHeShouldAndNoMore) {
  EXPECT_EQ(Trial(policies_).Wrong(), "");
}

TEST_F(PolicyTest, EveryLineIsNeeded) {
  static const std::regex kRule("<(allow|deny)[^>]*/>");
  int rules = 0;
  for (std::string& policy : policies_) {
    const std::string whole = policy;
    for (std::sregex_iterator rule(whole.begin(), whole.end(), kRule), end; rule != end; ++rule) {
      policy = whole;
      policy.erase(static_cast<std::size_t>(rule->position()), rule->str().size());
      EXPECT_NE(Trial(policies_).Wrong(), "") << "nothing needs " << rule->str();
      ++rules;
    }
    policy = whole;
  }
  EXPECT_GT(rules, 10);
}

}  // namespace
}  // namespace policy
