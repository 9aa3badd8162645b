#pragma once

#include "KovaContext.h"
#include "Trace.h"

#include "zelt/fake/FakeConfigReader.h"
#include "zelt/fake/FakeServiceModel.h"
#include "zelt/fake/TempFolder.h"

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <stdexcept>

namespace zelt::test {

using Data = orka::RadioNotificationData;
using fake::FromText;

class TracedModel : public fake::FakeServiceModel {
 public:
  explicit TracedModel(Journal& journal) : journal_(journal) {
    Ipc().SetResult([this](const fake::FakeServiceIPC::Record& record) {
      using Kind = fake::FakeServiceIPC::Kind;
      const std::string what = Describe(record.type, record.payload);
      if (record.kind == Kind::Publish) {
        const auto hook = before_publish;
        hook();
        journal_.Add(Line("publish", what));
      } else if (record.kind == Kind::Send) {
        journal_.Add(Line("send", record.peer, what));
      } else {
        journal_.Add(Line("answer", record.peer, record.request, what));
      }
      if (publish_fails && record.kind == Kind::Publish) {
        throw std::runtime_error("no bus");
      }
      return sends_work ? fake::FakeServiceIPC::Result::True : fake::FakeServiceIPC::Result::False;
    });
  }

  AsyncCallbackHandle AddTimer(std::string_view name, UniqueFunction<void()> callback,
                               Seconds interval, bool periodic) override {
    journal_.Add(Line("timer", name, interval.count(), periodic ? "periodic" : "once"));
    return FakeServiceModel::AddTimer(name, std::move(callback), interval, periodic);
  }
  void SetMyServiceState(service_state::State state) override {
    journal_.Add(Line("state", static_cast<std::uint32_t>(state)));
  }

  std::function<void()> before_publish = [] {};
  bool sends_work = true;
  bool publish_fails = false;  // by an exception, so that a test sees what was done before

 private:
  Journal& journal_;
};

// The bridge between fakes of its platform and its radio.
class Bench {
 public:
  Bench() {
    context.Init(std::unique_ptr<orka::RadioProtocol>(radio), nullptr);
    context.RegisterIpcCallbacks();
    journal.Watch(radio);
    journal.Take();
  }
  Bench(const Bench&) = delete;
  Bench& operator=(const Bench&) = delete;
  ~Bench() { journal.Watch(nullptr); }

  // What arrives, and is queued; false when it is refused.
  bool Post(std::string_view sender, const MessageLite& message, std::uint64_t request = 1) {
    return model->Ipc().Deliver(message.GetTypeName(), sender, message.SerializeAsString(),
                                request);
  }
  void Post(std::uint32_t kind, const Data& data = {}) {
    context.HandleRadioProtocolNotification(orka::NotifyMessage{kind}, data);
  }
  void Wait(double seconds) { model->Advance(ServiceModel::Seconds(seconds)); }
  // Runs what is queued; tells what was done, without the lines of the IPC layer, as Take() does.
  Trace Drain() {
    while (context.TaskQueue().Size() > 0) {
      context.TaskQueue().Pop()();
    }
    return Take();
  }
  Trace Take() {
    Trace trace = journal.Take();
    std::erase_if(trace, [](const std::string& line) { return line.contains(" 32790 Register"); });
    return trace;
  }
  // Both at once.
  Trace From(std::string_view sender, const MessageLite& message, std::uint64_t request = 1) {
    return Post(sender, message, request), Drain();
  }
  Trace Notify(std::uint32_t kind, const Data& data = {}) { return Post(kind, data), Drain(); }
  Trace After(double seconds) { return Wait(seconds), Drain(); }
  Trace Subscribe(std::string_view topic) { return model->Ipc().Subscribe(topic, "New"), Drain(); }

  // What the radio answers from now on, where it differs from the usual.
  void SetAnswers(auto set) { radio->SetAnswers(With<orka::fake::Answers>(set)); }

  fake::RootFolder folder;
  Journal journal;
  std::shared_ptr<TracedModel> model = std::make_shared<TracedModel>(journal);
  std::shared_ptr<fake::FakeConfig> config = std::make_shared<fake::FakeConfig>();
  orka::fake::FakeRadioProtocol* radio = new orka::fake::FakeRadioProtocol;  // the context's
  KovaContext context{model, std::make_unique<fake::FakeConfigReader>(config)};
};

class BenchTest : public testing::Test, protected Bench {};

}  // namespace zelt::test
