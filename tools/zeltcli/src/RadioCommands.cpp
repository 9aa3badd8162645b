#include "CommandFunctions.h"
#include "DateTime.h"
#include "FileProgress.h"
#include "Session.h"
#include "Words.h"
#include "zelt/FileSize.h"

#include <arpa/inet.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <functional>
#include <iomanip>
#include <iostream>
#include <iterator>
#include <limits>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string_view>
#include <utility>

namespace zelt::cli {
namespace {

// Kova reads the file until the radio has it or the transfer fails, and then tells the outcome at
// once.
constexpr Seconds kOutcomeTime{6};
// Where Kova cannot be seen to read, the transfer has so long, and a second for so many bytes: a
// tenth of what the serial port carries.
constexpr Seconds kUnseenTime{30};
constexpr double kUnseenBytesPerSecond = 16.0 * 1024;

std::string InSeconds(double seconds) {
  std::ostringstream text;
  text << std::fixed << std::setprecision(seconds < 10 ? 2 : 0) << seconds << " s";
  return text.str();
}

// Asks Kova and returns the answer, which must be of type `expected`.
MessageValue AskKova(const Cli& cli, const MessageValue& request, std::string_view expected,
                     const std::function<void()>& tick = {}) {
  Session session;
  const Incoming answer =
      session.Request(kKova, request.Type(), request.Bytes(), AnswerTime(cli), tick);
  auto value = cli.types.Parse(answer.type, answer.payload);
  if (!value || answer.type != expected) {
    throw CliError(Exit::Failed, "expected " + std::string(expected) + " as the answer, got " +
                                     answer.type + " " + MessageJson(cli.types, answer));
  }
  return std::move(*value);
}

// The same for what only the radio can answer: without a link, it fails at once with `without_link`
// instead of after a time-out.
MessageValue AskRadio(const Cli& cli, const MessageValue& request, std::string_view expected,
                      Exit without_link = Exit::TimedOut, const std::function<void()>& tick = {}) {
  if (const std::string state = LinkState(cli); IsDown(state)) {
    throw CliError(without_link, "the link to the radio is " + state, "zeltcli link up starts it");
  }
  return AskKova(cli, request, expected, tick);
}

// A result of 0 is success everywhere.
void CheckResult(const MessageValue& answer, const std::string& field, const std::string& what) {
  const auto result = answer.Number(field);
  if (result != 0) {
    throw CliError(Exit::Failed, what + ": result " + std::to_string(result));
  }
}

void AskSocket(const Cli& cli, const MessageValue& request, const std::string& done) {
  const auto answer = AskKova(cli, request, "zelt.GenericResponse");
  CheckResult(answer, "result_code", "Kova refused: " + answer.Text("description"));
  cli.output.Result(done + (IsDown(LinkState(cli))
                                ? "; it counts from the next zeltcli link up"
                                : "; it counts from the next start: zeltcli link down, then "
                                  "zeltcli link up"));
}

std::uint64_t CheckImage(const std::string& path) {
  const auto size = GetFileSize(path);
  if (!size && access(path.c_str(), F_OK) == 0) {
    throw CliError(Exit::Usage, path + " is no regular file");
  }
  if (!size || access(path.c_str(), R_OK) != 0) {
    throw CliError(Exit::Usage, "cannot read " + path + ": " + std::strerror(errno));
  }
  if (*size == 0 || *size > std::numeric_limits<std::uint32_t>::max()) {
    throw CliError(Exit::Usage, path + " has " + std::to_string(*size) + " bytes",
                   "an image has from 1 byte to 4 GiB less one");
  }
  return *size;
}

}  // namespace

std::vector<std::string> VideoActions(const MessageTypes& types) {
  const auto* const values = types.Find("Kova.VideoControlRequest").FindFieldByName("action");
  std::vector<std::string> names;
  for (int i = 0; i < values->enum_type()->value_count(); ++i) {
    std::string name = values->enum_type()->value(i)->name();
    name.erase(0, std::string_view("VIDEO_ACTION_").size());
    std::ranges::transform(name, name.begin(), [](unsigned char c) {
      return c == '_' ? '-' : static_cast<char>(std::tolower(c));
    });
    names.push_back(std::move(name));
  }
  return names;
}

void Version(const Cli& cli) {
  const auto answer =
      AskRadio(cli, cli.types.New("Kova.RtVersionMsg").Touch("request"), "Kova.RtVersionMsg");
  const std::string version = answer.Text("response.version");
  const auto build = answer.Number("response.build_number");
  cli.output.Result("radio software " + version + " build " + std::to_string(build),
                    JsonObject().Add("version", version).Add("build_number", build));
}

void HardwareId(const Cli& cli) {
  const auto answer =
      AskRadio(cli, cli.types.New("Kova.HardwareIdMsg").Touch("request"), "Kova.HardwareIdMsg");
  const std::string id = answer.Text("response.hardware_id");
  const auto revision = answer.Number("response.revision");
  cli.output.Result("radio hardware " + id + " revision " + std::to_string(revision),
                    JsonObject().Add("hardware_id", id).Add("revision", revision));
}

void GetDateTime(const Cli& cli) {
  const auto answer = AskRadio(cli, cli.types.New("Kova.GetDateTimeReq"), "Kova.GetDateTimeResp");
  CheckResult(answer, "result", "the radio did not tell its time");
  const std::string text = DateTimeText(answer, "date_time");
  cli.output.Result(text, JsonObject().Add("date_time", text));
}

void SetDateTimeOnRadio(const Cli& cli) {
  auto request = cli.types.New("Kova.SetDateTimeMsg");
  SetDateTime(request, "request.date_time", cli.arguments.text);
  const std::string text = DateTimeText(request, "request.date_time");
  const auto answer = AskRadio(cli, request, "Kova.SetDateTimeResp");
  CheckResult(answer, "result", "the radio refused " + text);
  cli.output.Result("the radio's time is set to " + text, JsonObject().Add("date_time", text));
}

void SetSocket(const Cli& cli) {
  const std::string& ip = cli.arguments.text;
  std::array<unsigned char, sizeof(in6_addr)> address{};
  if (inet_pton(AF_INET, ip.c_str(), address.data()) != 1 &&
      inet_pton(AF_INET6, ip.c_str(), address.data()) != 1) {
    throw CliError(Exit::Usage, "\"" + ip + "\" is no IP address",
                   "give a numeric IPv4 or IPv6 address, such as 127.0.0.1");
  }
  if (cli.arguments.port < 1 || cli.arguments.port > std::numeric_limits<std::uint16_t>::max()) {
    throw CliError(Exit::Usage, std::to_string(cli.arguments.port) + " is no port",
                   "give a number from 1 to 65535");
  }
  AskSocket(cli,
            cli.types.New("Kova.SetSocketParams").Set("ip", ip).Set("port", cli.arguments.port),
            "the radio's address is " + ip + " port " + std::to_string(cli.arguments.port));
}

void ClearSocket(const Cli& cli) {
  AskSocket(cli, cli.types.New("Kova.ClearSocketParams"), "the link uses the serial port");
}

void FactoryReset(const Cli& cli) {
  if (!cli.arguments.yes) {
    if (isatty(STDIN_FILENO) == 0) {
      throw CliError(Exit::Usage, "a factory reset must be confirmed", "add --yes");
    }
    std::cerr << "Return the radio to its factory settings? [y/N] " << std::flush;
    std::string answer;
    std::getline(std::cin, answer);
    if (answer != "y" && answer != "Y" && answer != "yes") {
      throw CliError(Exit::Usage, "nothing was reset");
    }
  }
  const auto answer = AskRadio(cli,
                               cli.types.New("Kova.RtFactoryResetRequest")
                                   .Set("keep_pairings", std::int64_t{cli.arguments.keep_pairings}),
                               "Kova.RtFactoryResetResponse");
  CheckResult(answer, "result", "the radio refused the factory reset");
  cli.output.Result("the radio is back at its factory settings");
}

void Inject(const Cli& cli) {
  auto request = cli.types.New("Kova.InjectQrxRequest");
  request.Set("payload", FromHex(cli.arguments.text));
  std::istringstream header(cli.arguments.header);
  std::string value;
  for (int i = 1; std::getline(header, value, ','); ++i) {
    std::size_t used = 0;
    unsigned long number = 0;
    try {
      number = std::stoul(value, &used, 0);
    } catch (const std::logic_error&) {
      used = 0;
    }
    const unsigned long most = i == 2 || i == 3 ? 0xFF : 0xFFFF;
    if (i > 7 || used == 0 || used != value.size() || number > most) {
      throw CliError(Exit::Usage, "\"" + cli.arguments.header + "\" is no header",
                     "give up to seven numbers from 0 to 0xffff, the second and third to 0xff: "
                     "address, kind, flags, source, destination, transaction, body length");
    }
    if (i == 2 && number > 2) {
      throw CliError(Exit::Usage, "a message of kind " + value + " cannot be injected",
                     "give 0 (request), 1 (response) or 2 (broadcast)");
    }
    request.Set("header.h" + std::to_string(i), static_cast<std::int64_t>(number));
  }
  const auto answer = AskRadio(cli, request, "Kova.InjectQrxResponse", Exit::Failed);
  if (answer.Number("result") != 0) {
    throw CliError(Exit::Failed, "the message was not sent, or not answered in time",
                   "the radio may not know the opcode; a message that has no answer wants --header "
                   "with kind 1 (response) or 2 (broadcast)");
  }
  const std::string hex = ToHex(answer.Text("payload"));
  cli.output.Result(hex.empty() ? "sent; this kind of frame has no answer" : hex,
                    JsonObject().Add("payload", hex));
}

void Video(const Cli& cli) {
  const std::string& action = cli.arguments.name;
  const auto actions = VideoActions(cli.types);
  const auto known = std::ranges::find(actions, action);
  if (known == actions.end()) {
    throw CliError(Exit::Usage, "there is no video action \"" + action + "\"",
                   "give one of " + Join(actions, ", "));
  }
  const auto answer = AskRadio(cli,
                               cli.types.New("Kova.VideoControlRequest")
                                   .Set("action", std::distance(actions.begin(), known))
                                   .Set("radio_send_selector", cli.arguments.selector)
                                   .Set("request_id", cli.arguments.id)
                                   .Set("stream_url", cli.arguments.url),
                               "Kova.VideoControlResponse");
  CheckResult(answer, "result", "the radio refused " + action);
  cli.output.Result("the radio did " + action, JsonObject().Add("action", action));
}

void PushFirmware(const Cli& cli) {
  const std::string path = std::filesystem::absolute(cli.arguments.file).lexically_normal();
  const std::uint64_t size = CheckImage(path);
  const std::string target = cli.arguments.name.empty()
                                 ? std::filesystem::path(path).filename().string()
                                 : cli.arguments.name;
  Progress progress(target, !cli.output.IsJson());
  FileProgress read(path, "kova");
  std::optional<std::uint64_t> done;
  std::optional<Clock::time_point> closed;  // since when Kova is seen to have read the file
  const Seconds unseen_time =
      kUnseenTime + Seconds(static_cast<double>(size) / kUnseenBytesPerSecond);
  const auto watch = [&] {
    if (const auto position = read.Position()) {
      done = position;
      closed.reset();
    } else if (done && !closed) {
      closed = Clock::now();
    } else if (closed && Clock::now() - *closed > kOutcomeTime) {
      throw CliError(Exit::TimedOut,
                     "the outcome of the transfer of " + path +
                         " went elsewhere: another tool asked Kova meanwhile",
                     "Kova's log tells the outcome");
    } else if (!done && !cli.arguments.timeout_given && progress.Elapsed() > unseen_time.count()) {
      throw CliError(Exit::TimedOut,
                     "Kova did not tell the outcome of the transfer of " + path + " within " +
                         InSeconds(unseen_time.count()),
                     "the radio is very slow, or another tool asked Kova meanwhile; Kova's log "
                     "tells the outcome, and --timeout SECONDS waits longer");
    }
    progress.Show(done, size);
  };
  const auto answer = AskRadio(cli,
                               cli.types.New("Kova.TransferFirmwareRequest")
                                   .Set("source_file_path", path)
                                   .Set("target_file_name", target),
                               "Kova.TransferFirmwareResponse", Exit::Failed, watch);
  progress.Clear();
  const double elapsed = progress.Elapsed();
  if (answer.Number("result") != 0) {
    throw CliError(
        Exit::Failed, "the transfer of " + path + " failed after " + InSeconds(elapsed),
        "the radio may have refused the name or the size, or Kova cannot read the file; Kova's log "
        "tells which step failed");
  }
  cli.output.Result("the radio has " + target + ", " + std::to_string(size) + " bytes, after " +
                        InSeconds(elapsed),
                    JsonObject()
                        .Add("file", path)
                        .Add("target", target)
                        .Add("bytes", static_cast<std::int64_t>(size))
                        .Add("seconds", elapsed));
}

}  // namespace zelt::cli
