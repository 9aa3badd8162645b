#pragma once

#include "zelt/fake/ChildProcess.h"
#include "zelt/fake/TempFolder.h"

#include <cstdlib>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace zelt::fake {

// A private bus in a temporary folder; ZELT_BUS_ADDRESS leads to it. Start it before any thread.
class TestBus {
 public:
  // `policy` goes into the configuration of the bus: what it forbids.
  explicit TestBus(const std::string& policy = "") {
    setenv("ZELT_BUS_ADDRESS", address_.c_str(), 1);
    const std::string file = folder_.File("bus.conf", "<busconfig><include>" KOVA_BUS_CONFIG
                                                      "</include><policy context='default'>" +
                                                          policy + "</policy></busconfig>");
    daemon_ = std::make_unique<ChildProcess>(
        std::vector<std::string>{"dbus-daemon", "--config-file=" + file, "--nofork", "--nopidfile",
                                 "--print-address", "--address=" + address_},
        folder_.path / "bus.log");
    if (!daemon_->WaitForOutput("guid=")) {  // written once it listens
      throw std::runtime_error("dbus-daemon does not start: " + daemon_->Output());
    }
  }
  TestBus(const TestBus&) = delete;
  TestBus& operator=(const TestBus&) = delete;

  const std::filesystem::path& Folder() const { return folder_.path; }
  const std::string& Address() const { return address_; }
  void Kill() { daemon_.reset(); }
  void Halt() const { daemon_->Halt(); }

 private:
  TempFolder folder_;
  std::string address_ = "unix:path=" + (folder_.path / "bus").string();
  std::unique_ptr<ChildProcess> daemon_;
};

}  // namespace zelt::fake
