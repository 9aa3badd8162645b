#include "Platform.h"

#include "Kova.pb.h"

#include <cstdlib>
#include <iostream>
#include <map>
#include <thread>

namespace zelt {
namespace {

std::future<bool> Done() {
  std::promise<bool> promise;
  promise.set_value(true);
  return promise.get_future();
}

// Everything that a service sees of the camera. What it does is printed, a line each.
class Camera : public ServiceModel, public ServiceIPC {
 public:
  std::shared_ptr<ServiceIPC> GetServiceIPC() override {
    return {std::shared_ptr<void>(), static_cast<ServiceIPC*>(this)};
  }
  AsyncCallbackHandle AddTimer(std::string_view, UniqueFunction<void()>, Seconds, bool) override {
    return {};
  }
  AsyncCallbackHandle AddWatchdog(UniqueFunction<void(UniqueFunction<void()>)>) override {
    return {};
  }
  service_state::State GetServiceState(std::string_view, Seconds) override {
    throw std::runtime_error("nobody is there");
  }
  void SetMyServiceState(service_state::State state) override {
    Print("state", GetServiceStateString(state));
  }

  AsyncCallbackHandle RegisterCallbackImpl(std::string_view typeName,
                                           std::optional<gsl::span<std::string_view>>,
                                           MessageCallback callback) override {
    callbacks_[std::string(typeName)] = std::move(callback);
    return AsyncCallbackHandle([] {});
  }
  AsyncCallbackHandle AddSubscribeHandlerImpl(UniqueFunction<void(std::string_view)>,
                                              std::string_view) override {
    return AsyncCallbackHandle([] {});
  }
  std::future<bool> SendImpl(std::string_view destination, std::string_view typeName,
                             std::string_view payload) override {
    Kova::RtVersionMsg version;
    const bool known = typeName == "Kova.RtVersionMsg" &&
                       version.ParseFromArray(payload.data(), static_cast<int>(payload.size()));
    Print("sent to " + std::string(destination),
          std::string(typeName) + (known ? " \"" + version.response().version() + "\"" : ""));
    return Done();
  }
  std::future<bool> SendResponseImpl(const MessageEnvelope& envelope, std::string_view typeName,
                                     std::string_view) override {
    Print("answered " + envelope.sender, typeName);
    return Done();
  }
  std::future<bool> PublishImpl(std::string_view topic, std::string_view payload) override {
    Kova::RTConnectionStatus status;
    status.ParseFromArray(payload.data(), static_cast<int>(payload.size()));
    Print("published " + std::string(topic), std::to_string(status.status()));
    return Done();
  }

  void Deliver(std::string_view sender, const google::protobuf::MessageLite& message) {
    callbacks_.at(message.GetTypeName())({std::string(sender)}, message.SerializeAsString());
  }
  // Until a line that begins so was printed.
  void WaitFor(std::string_view line) {
    std::unique_lock lock(mutex_);
    if (!printed_.wait_for(lock, std::chrono::seconds(60),
                           [&] { return lines_.find(line) != std::string::npos; })) {
      std::cout << "never came: " << line << std::endl;
      std::_Exit(1);
    }
  }

 private:
  void Print(std::string_view what, std::string_view text) {
    const std::lock_guard lock(mutex_);
    lines_.append(what).append(": ").append(text).append("\n");
    std::cout << what << ": " << text << std::endl;
    printed_.notify_all();
  }

  std::map<std::string, MessageCallback, std::less<>> callbacks_;
  std::mutex mutex_;
  std::condition_variable printed_;
  std::string lines_;
};

// What happens to the service: the link is started, somebody asks for the radio's version.
void Play(Camera& camera, MicroserviceIF& service) {
  camera.WaitFor("state: READY");
  camera.Deliver("Controller", Kova::RtConnectionAction());
  camera.WaitFor("published Kova.RTConnectionStatus: 4");
  Kova::RtVersionMsg question;
  question.mutable_request();
  camera.Deliver("Upgrade", question);
  camera.WaitFor("sent to Upgrade");
  service.DoDie();
}

class Block : public ConfigReaderIF, public SharedMemoryBlockReaderIF {
 public:
  ConfigResult Get() override {
    static const ConfigRecord record;
    return {.record = {std::make_shared<Block>(), &record}, .error = 0, .errorText = {}};
  }
  void Lock() override { mutex_.lock(); }
  void Unlock() override { mutex_.unlock(); }

 private:
  std::mutex mutex_;
};

}  // namespace

std::string service_state::GetServiceStateString(State state) {
  return state == State::Ready ? "READY" : "STOPPED";
}

std::shared_ptr<ServiceModel> ServiceModel::Create() {
  return std::make_shared<Camera>();
}

int ServiceRunner::RunService(const Factory& factory, std::string_view name,
                              gsl::span<const std::string_view> dependencies,
                              gsl::span<const std::string_view>) {
  std::cout << name << " needs " << dependencies.size() << ", " << dependencies[0] << std::endl;
  const auto camera = std::make_shared<Camera>();
  const auto service = factory(camera);
  std::thread story([&] { Play(*camera, *service); });
  service->DoRun();
  story.join();
  return 0;
}

LogClient::LogClient(const char*, const char* function, int, int level, std::uint32_t) {
  text_ << level << ' ' << function << ": ";
}

LogClient::~LogClient() {
  std::cerr << text_.view() << std::endl;
}

bool LogClient::LevelIsEnabled(int level) {
  return level <= kLogInfo;
}

template <>
std::unique_ptr<ConfigReaderIF> InterfaceFactory::Create<ConfigReaderIF>(std::string_view) {
  return std::make_unique<Block>();
}

std::string VersionInfoFile() {
  return "version";
}
std::string EnableCollaborationTestKeyConfigFile() {
  return "test-key";
}
std::string DoIgnoreDockForStandardCableFile() {
  return "no-such-marker";
}
std::optional<std::uint64_t> GetFileSize(const std::string&) {
  return std::nullopt;
}
std::ifstream OpenRegularFile(const std::string&) {
  return {};
}
bool WriteRegularFile(const std::string&, std::string_view) {
  return false;
}
std::string VersionInfo::GetVersionAndBuildNumberText(std::string_view path) {
  return "camera " + std::string(path);
}
ForkAndExecResult ForkAndExecImpl(UniqueFunction<void()>) {
  return {.status = 1};
}

}  // namespace zelt
