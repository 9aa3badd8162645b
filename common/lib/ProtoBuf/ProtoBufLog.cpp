// What the protobuf library has to say goes through the log of every program with messages, so that
// levels and limits hold for it, too.

#include "zelt/LogClient.h"

#include <google/protobuf/stubs/logging.h>

#include <string>

namespace {

constexpr std::uint32_t kProtoBufLogCategory = 0x8016;

// Whoever parses says that it failed and what failed, at a level of its own. The library's line
// about the same is a detail, but for what makes it end the process.
void Log(google::protobuf::LogLevel level, const char* file, int line, const std::string& text) {
  const int our_level =
      level == google::protobuf::LOGLEVEL_FATAL ? zelt::kLogError : zelt::kLogDebug;
  if (zelt::LogClient::LevelIsEnabled(our_level)) {
    zelt::LogClient(file, "protobuf", line, our_level, kProtoBufLogCategory) << text;
  }
}

}  // namespace

// Referred to by the linker only; its value is of no interest.
extern "C" const bool zelt_protobuf_log;
const bool zelt_protobuf_log = [] {
  google::protobuf::SetLogHandler(&Log);
  return true;
}();
