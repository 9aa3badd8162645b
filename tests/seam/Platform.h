// The platform as the service describes it, and no more. One process is the whole camera: messages
// do not leave it, and the runner plays a short story with the service (see Platform.cpp).
#pragma once

#include <gsl/span>

#include <array>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <fstream>
#include <functional>
#include <future>
#include <list>
#include <memory>
#include <mutex>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>

namespace zelt {

template <class Signature>
using UniqueFunction = std::move_only_function<Signature>;

// --- Queue and handles -------------------------------------------------------------------------

// A message callback throws it where there is no room. Here nothing is ever short of it.
class Busy : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};
struct QueueLoad {
  std::size_t number = 0;
  std::size_t bytes = 0;
};

// Without a bound.
template <class T>
class ConcurrentQueue {
 public:
  explicit ConcurrentQueue(const QueueLoad& /*limit*/) {}
  void Push(T value, std::string_view /*source*/, std::size_t /*bytes*/) {
    PushAlways(std::move(value));
  }
  void PushAlways(T value, std::string_view /*source*/ = {}, std::size_t /*bytes*/ = 0) {
    const std::lock_guard lock(mutex_);
    items_.push_back(std::move(value));
    condition_.notify_all();
  }
  void Close(T last) { PushAlways(std::move(last)); }
  QueueLoad Waiting(std::string_view /*source*/) const { return {}; }
  T Pop() {
    std::unique_lock lock(mutex_);
    condition_.wait(lock, [this] { return !items_.empty(); });
    T value = std::move(items_.front());
    items_.pop_front();
    return value;
  }

 private:
  std::mutex mutex_;
  std::condition_variable condition_;
  std::list<T> items_;
};

class AsyncCallbackHandle {
 public:
  AsyncCallbackHandle() = default;
  explicit AsyncCallbackHandle(UniqueFunction<void()> close) : close_(std::move(close)) {}
  AsyncCallbackHandle(AsyncCallbackHandle&& other) noexcept
      : close_(std::exchange(other.close_, nullptr)) {}
  AsyncCallbackHandle& operator=(AsyncCallbackHandle&& other) noexcept {
    Close();
    close_ = std::exchange(other.close_, nullptr);
    return *this;
  }
  ~AsyncCallbackHandle() { Close(); }
  void Close() {
    if (auto close = std::exchange(close_, nullptr)) {
      close();
    }
  }
  bool IsOpen() const { return static_cast<bool>(close_); }

 private:
  UniqueFunction<void()> close_;
};

// --- Messages, services ------------------------------------------------------------------------

class ServiceIPC {
 public:
  struct MessageEnvelope {
    std::string sender;
  };
  using MessageCallback = UniqueFunction<void(const MessageEnvelope&, std::string_view)>;

  virtual ~ServiceIPC() = default;
  virtual AsyncCallbackHandle RegisterCallbackImpl(
      std::string_view typeName, std::optional<gsl::span<std::string_view>> allowedSenders,
      MessageCallback callback) = 0;
  virtual AsyncCallbackHandle AddSubscribeHandlerImpl(
      UniqueFunction<void(std::string_view)> handler, std::string_view topic) = 0;
  virtual std::future<bool> SendImpl(std::string_view destination, std::string_view typeName,
                                     std::string_view payload) = 0;
  virtual std::future<bool> SendResponseImpl(const MessageEnvelope& envelope,
                                             std::string_view typeName,
                                             std::string_view payload) = 0;
  virtual std::future<bool> PublishImpl(std::string_view topic, std::string_view payload) = 0;
};

namespace service_state {
enum class State : std::uint32_t { Stopped = 1, Ready = 5 };
std::string GetServiceStateString(State state);
}  // namespace service_state

class ServiceModel {
 public:
  using Seconds = std::chrono::duration<double>;
  virtual ~ServiceModel() = default;
  static std::shared_ptr<ServiceModel> Create();
  virtual std::shared_ptr<ServiceIPC> GetServiceIPC() = 0;
  virtual AsyncCallbackHandle AddTimer(std::string_view name, UniqueFunction<void()> callback,
                                       Seconds interval, bool periodic) = 0;
  virtual AsyncCallbackHandle AddWatchdog(UniqueFunction<void(UniqueFunction<void()>)> ask) = 0;
  virtual service_state::State GetServiceState(std::string_view service, Seconds timeout) = 0;
  virtual void SetMyServiceState(service_state::State state) = 0;
};

class MicroserviceIF {
 public:
  explicit MicroserviceIF(std::shared_ptr<ServiceModel> model) : model_(std::move(model)) {}
  virtual ~MicroserviceIF() = default;
  virtual void DoRun() = 0;
  virtual void DoDie() = 0;

 protected:
  void SetMyServiceState(service_state::State state) { model_->SetMyServiceState(state); }
  const std::shared_ptr<ServiceModel>& Model() const { return model_; }

 private:
  std::shared_ptr<ServiceModel> model_;
};

class ServiceRunner {
 public:
  using Factory = std::function<std::shared_ptr<MicroserviceIF>(std::shared_ptr<ServiceModel>)>;
  static int RunService(const Factory& factory, std::string_view name,
                        gsl::span<const std::string_view> dependencies,
                        gsl::span<const std::string_view> shutdownDependencies);
};

// --- Log ---------------------------------------------------------------------------------------

inline constexpr int kLogError = 3;
inline constexpr int kLogWarning = 4;
inline constexpr int kLogInfo = 6;
inline constexpr int kLogDebug = 7;
inline constexpr int kLogVerbose = 8;

class LogClient {
 public:
  LogClient(const char* file, const char* function, int line, int level, std::uint32_t category);
  ~LogClient();
  template <class T>
  LogClient& operator<<(const T& value) {
    text_ << value;
    return *this;
  }
  static bool LevelIsEnabled(int level);

 private:
  std::ostringstream text_;
};

// --- Configuration -----------------------------------------------------------------------------

struct Officer {
  bool collaborationEnabled = true;
};
class OfficerList {
 public:
  const Officer& GetCurrentOfficer() const { return officer_; }

 private:
  Officer officer_;
};
enum class TetheredMode : std::uint8_t { Automatic = 0, Never = 1 };
struct ConfigRecord {
  std::array<char, 33> workingMode = {"Connected"};
  OfficerList officers;
  TetheredMode tetheredStreaming = TetheredMode::Automatic;
  TetheredMode tetheredUploading = TetheredMode::Never;
};

class SharedMemoryBlockReaderIF {
 public:
  virtual ~SharedMemoryBlockReaderIF() = default;
  virtual void Lock() = 0;
  virtual void Unlock() = 0;
};

template <class T>
class SharedMemoryReadPointer {
 public:
  class Access {
   public:
    explicit Access(const SharedMemoryReadPointer& pointer) : pointer_(pointer) {
      pointer_.reader_->Lock();
    }
    Access(const Access&) = delete;
    ~Access() { pointer_.reader_->Unlock(); }
    const T* operator->() const { return pointer_.record_; }

   private:
    const SharedMemoryReadPointer& pointer_;
  };

  SharedMemoryReadPointer() = default;
  SharedMemoryReadPointer(std::shared_ptr<SharedMemoryBlockReaderIF> reader, const T* record)
      : reader_(std::move(reader)), record_(record) {}
  explicit operator bool() const { return reader_ != nullptr && record_ != nullptr; }
  Access Lock() const { return Access(*this); }

 private:
  std::shared_ptr<SharedMemoryBlockReaderIF> reader_;
  const T* record_ = nullptr;
};

struct ConfigResult {
  SharedMemoryReadPointer<ConfigRecord> record;
  int error = 0;
  std::string errorText;
};
class ConfigReaderIF {
 public:
  virtual ~ConfigReaderIF() = default;
  virtual ConfigResult Get() = 0;
};
class InterfaceFactory {
 public:
  template <class T>
  static std::unique_ptr<T> Create(std::string_view name);
};
template <>
std::unique_ptr<ConfigReaderIF> InterfaceFactory::Create<ConfigReaderIF>(std::string_view name);

// --- Device ------------------------------------------------------------------------------------

std::string VersionInfoFile();
std::string EnableCollaborationTestKeyConfigFile();
std::string DoIgnoreDockForStandardCableFile();
std::optional<std::uint64_t> GetFileSize(const std::string& path);
std::ifstream OpenRegularFile(const std::string& path);
bool WriteRegularFile(const std::string& path, std::string_view content);

class VersionInfo {
 public:
  static std::string GetVersionAndBuildNumberText(std::string_view path);
};

class TargetAttributesIF {
 public:
  virtual ~TargetAttributesIF() = default;
  virtual std::string ModelAsString() const = 0;
};
class TargetAttributes : public TargetAttributesIF {
 public:
  explicit TargetAttributes(bool) {}
  std::string ModelAsString() const override { return "OTTR"; }
};

// --- Processes ---------------------------------------------------------------------------------

struct ForkAndExecResult {
  int status = 0;
};
ForkAndExecResult ForkAndExecImpl(UniqueFunction<void()> inChild);

}  // namespace zelt

// Beyond the described interface: the service writes its lines with these.
#define ZELT_LOG_AS(function, level, category)     \
  if (!::zelt::LogClient::LevelIsEnabled(level)) { \
  } else                                           \
    ::zelt::LogClient(__FILE__, function, __LINE__, level, category)
#define ZELT_LOG(level, category) ZELT_LOG_AS(__func__, level, category)
