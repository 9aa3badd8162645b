#include "Output.h"

#include "Words.h"

#include <unistd.h>

#include <array>
#include <cstddef>
#include <cstdlib>
#include <ctime>
#include <functional>
#include <iomanip>
#include <iostream>
#include <sstream>
#include <utility>

namespace zelt::cli {
namespace {

constexpr double kMiB = 1024.0 * 1024.0;

// "10:02:03.123" here, or "2026-11-21T09:02:03.123Z".
std::string TimeNow(bool iso) {
  const auto now = std::chrono::system_clock::now();
  const std::time_t seconds = std::chrono::system_clock::to_time_t(now);
  const auto ms = std::chrono::floor<std::chrono::milliseconds>(now.time_since_epoch()).count();
  std::tm parts{};
  iso ? gmtime_r(&seconds, &parts) : localtime_r(&seconds, &parts);
  std::ostringstream text;
  text << std::put_time(&parts, iso ? "%FT%T." : "%T.") << std::setfill('0') << std::setw(3)
       << ms % 1000 << (iso ? "Z" : "");
  return text.str();
}

}  // namespace

Output::Output(bool json)
    : json_(json), colour_(!json && isatty(STDOUT_FILENO) != 0 && [] {
        const char* const no_colour = std::getenv("NO_COLOR");
        return no_colour == nullptr || *no_colour == '\0';
      }()) {}

void Output::Result(const std::string& text, const JsonObject& json) const {
  if (!json_) {
    std::cout << text << '\n';
    return;
  }
  const std::string members = json.Str();
  std::cout << R"({"ok":true)" << (members.size() > 2 ? "," : "") << members.substr(1) << '\n';
}

void Output::Error(const CliError& error) const {
  if (json_) {
    JsonObject object;
    object.Add("ok", false)
        .Add("exit", static_cast<std::int64_t>(error.exit))
        .Add("error", error.what());
    if (!error.hint.empty()) {
      object.Add("hint", error.hint);
    }
    std::cout << object.Str() << std::endl;
    return;
  }
  std::cout.flush();
  std::cerr << "zeltcli: " << error.what() << '\n';
  if (!error.hint.empty()) {
    std::cerr << "  " << error.hint << '\n';
  }
}

void Output::Notice(const std::string& text) const {
  std::cerr << Paint(Style::Dim, text) << std::endl;
}

void Output::Message(const MessageTypes& types, const Incoming& message) const {
  const std::string body = MessageJson(types, message);
  if (json_) {
    std::cout << JsonObject()
                     .Add("time", TimeNow(true))
                     .Add("from", message.sender)
                     .Add("type", message.type)
                     .Add("published", message.published)
                     .AddRaw("message", body)
                     .Str()
              << std::endl;
    return;
  }
  // One colour a type, always the same.
  static constexpr std::array<std::string_view, 6> kColours = {"31", "32", "33", "34", "35", "36"};
  const auto colour = kColours.at(std::hash<std::string>{}(message.type) % kColours.size());
  std::cout << Paint(Style::Dim, TimeNow(false)) << ' ' << Paint(Style::Bold, message.sender)
            << (message.published ? " * " : " > ") << Coloured(colour, message.type) << ' ' << body
            << std::endl;
}

std::string Output::Paint(Style style, std::string_view text) const {
  static constexpr std::array<std::string_view, 4> kCodes = {"2", "1", "32", "31"};
  return Coloured(kCodes.at(static_cast<std::size_t>(style)), text);
}

std::string Output::Coloured(std::string_view code, std::string_view text) const {
  if (!colour_) {
    return std::string(text);
  }
  return std::string("\033[").append(code).append("m").append(text).append("\033[0m");
}

std::string MessageJson(const MessageTypes& types, const Incoming& message, bool pretty) {
  if (const auto value = types.Parse(message.type, message.payload)) {
    return value->Json(pretty);
  }
  return JsonObject().Add("hex", ToHex(message.payload)).Str();
}

Progress::Progress(std::string what, bool shown)
    : what_(std::move(what)), shown_(shown && isatty(STDERR_FILENO) != 0) {}

double Progress::Elapsed() const {
  return Seconds(Clock::now() - start_).count();
}

std::string Progress::Line(const std::string& what, std::optional<std::uint64_t> done,
                           std::uint64_t total, double elapsed) {
  constexpr std::size_t kWidth = 30;
  std::ostringstream line;
  line << std::fixed << std::setprecision(1) << what << ' ';
  if (done && total > 0) {
    const double part = static_cast<double>(std::min(*done, total)) / static_cast<double>(total);
    const auto filled = static_cast<std::size_t>(part * kWidth);
    line << '[' << std::string(filled, '#') << std::string(kWidth - filled, '-') << "] "
         << static_cast<int>(part * 100) << " %  " << static_cast<double>(*done) / kMiB << " of "
         << static_cast<double>(total) / kMiB << " MiB";
  } else {
    line << R"(|/-\)"[static_cast<std::size_t>(elapsed * 8) % 4];
  }
  line << "  " << elapsed << " s";
  return line.str();
}

void Progress::Show(std::optional<std::uint64_t> done, std::uint64_t total) {
  if (shown_) {
    std::cerr << "\r\033[K" << Line(what_, done, total, Elapsed()) << std::flush;
    drawn_ = true;
  }
}

void Progress::Clear() {
  if (std::exchange(drawn_, false)) {
    std::cerr << "\r\033[K" << std::flush;
  }
}

}  // namespace zelt::cli
