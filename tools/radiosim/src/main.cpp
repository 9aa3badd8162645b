#include "Control.h"
#include "FaultPlan.h"
#include "Simulator.h"

#include <CLI/CLI.hpp>
#include <asio/io_context.hpp>
#include <asio/post.hpp>
#include <asio/signal_set.hpp>

#include <chrono>
#include <csignal>
#include <ctime>
#include <iomanip>
#include <iostream>
#include <sstream>
#include <string>
#include <vector>

namespace {

constexpr int kExitUsage = 2;

void PrintLine(const std::string& line) {
  const auto now = std::chrono::system_clock::now();
  const std::time_t seconds = std::chrono::system_clock::to_time_t(now);
  std::tm local{};
  ::localtime_r(&seconds, &local);
  const auto milliseconds =
      std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch()).count() % 1000;
  std::ostringstream text;
  text << std::put_time(&local, "%H:%M:%S") << '.' << std::setw(3) << std::setfill('0')
       << milliseconds << ' ' << line << '\n';
  std::cout << text.str() << std::flush;
}

int Fail(const std::string& error) {
  std::cerr << "radiosim: " << error << '\n';
  return kExitUsage;
}

int Serve(radiosim::Options options, radiosim::FaultPlan plan, const std::string& control_path) {
  asio::io_context io{1};
  radiosim::Simulator simulator(io, std::move(options), std::move(plan), PrintLine);
  radiosim::Control control(io, simulator);
  asio::signal_set signals(io, SIGTERM, SIGINT);
  const auto stop = [&] {
    control.Stop();
    simulator.Stop();
    signals.cancel();
  };
  signals.async_wait([&](const asio::error_code& error, int /*signal*/) {
    if (!error) {
      stop();
    }
  });
  simulator.on_quit = [&] { asio::post(io, stop); };
  auto started = simulator.Start();
  if (started && !control_path.empty()) {
    started = control.Start(control_path);
  }
  if (!started) {
    return Fail(started.error());
  }
  io.run();
  std::cout << simulator.FaultReport() << std::flush;
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app(
      "A radio to try the camera with: it speaks the radio link over TCP or a pseudo-terminal, "
      "answers every command, keeps state, and shows faults on demand.\n"
      "Example: radiosim --listen 127.0.0.1:4711 --control /tmp/radio.sock");
  radiosim::Options options;
  std::string control_path;
  std::string fault_file;
  std::vector<std::string> faults;
  std::uint64_t seed = 1;
  std::uint32_t bits_per_second = 0;
  std::uint32_t restart_ms = 1000;
  std::uint32_t broadcast_ms = 5000;
  bool out_of_service = false;
  std::string store;

  app.set_version_flag("--version", KOVA_VERSION);
  auto* listen =
      app.add_option("--listen", options.listen, "ADDRESS:PORT to listen on; port 0 takes any");
  app.add_option("--pty", options.pty_link,
                 "open a pseudo-terminal and keep this symbolic link to it")
      ->excludes(listen);
  app.add_option("--port-file", options.port_file, "write the port that it listens on to this file")
      ->needs(listen);
  app.add_option("--control", control_path, "serve commands on this UNIX socket");
  app.add_option("--store", store, "folder for the files that the camera writes");
  app.add_option("--max-transfer-size", options.max_transfer_size,
                 "largest chunk of a file in bytes; 32768 on TCP, 4096 on a pseudo-terminal")
      ->check(CLI::Range(1, 65527));
  auto* bps_option =
      app.add_option("--bps", bits_per_second, "speed of the line in bits per second");
  app.add_option("--faults", fault_file, "fault plan, a TOML file");
  app.add_option("--fault", faults,
                 "one fault in words, e.g. \"drop message=TransferDataResponse after=3 count=1\"")
      ->expected(1)
      ->take_all();
  auto* seed_option = app.add_option("--seed", seed, "seed of the fault plan");
  app.add_option("--name", options.name, "the radio's name");
  app.add_option("--radio-version", options.radio.version, "its software version");
  app.add_option("--hardware-id", options.radio.hardware_id, "its hardware identity");
  app.add_option("--battery", options.radio.battery_percent, "its charge in per cent")
      ->check(CLI::Range(0.0, 100.0));
  app.add_option("--battery-drain", options.radio.drain_per_minute, "per cent a minute");
  app.add_option("--broadcast-ms", broadcast_ms,
                 "milliseconds between broadcasts of what is subscribed to");
  app.add_option("--restart-ms", restart_ms, "milliseconds that it is away when it restarts");
  app.add_flag("--out-of-service", out_of_service, "say so at the handshake");
  app.add_flag("--verbose", options.verbose, "also print keep-alives and chunks of files");

  std::string ctl_path;
  std::vector<std::string> ctl_words;
  auto* ctl =
      app.add_subcommand("ctl", "send one command to a running simulator; \"help\" lists them");
  ctl->add_option("SOCKET", ctl_path, "its control socket")->required();
  ctl->add_option("COMMAND", ctl_words, "the command")->required();
  ctl->positionals_at_end(false);

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& failure) {
    return app.exit(failure) == 0 ? 0 : kExitUsage;
  }

  if (*ctl) {
    std::string command;
    for (const std::string& word : ctl_words) {
      command += (command.empty() ? "" : " ") + word;
    }
    return radiosim::RunControlClient(ctl_path, command);
  }
  options.radio.store = store;
  options.in_service = !out_of_service;
  options.restart_time = std::chrono::milliseconds(restart_ms);
  options.radio.broadcast_every = std::chrono::milliseconds(broadcast_ms);
  radiosim::FaultPlan plan(seed);
  if (!fault_file.empty()) {
    if (const auto loaded = plan.Load(fault_file); !loaded) {
      return Fail(loaded.error());
    }
  }
  if (*seed_option) {
    plan.Seed(seed);
  }
  if (*bps_option) {
    plan.SetBitsPerSecond(bits_per_second);
  }
  for (const std::string& fault : faults) {
    if (const auto added = plan.Add(fault); !added) {
      return Fail("--fault \"" + fault + "\": " + added.error());
    }
  }
  return Serve(std::move(options), std::move(plan), control_path);
}
