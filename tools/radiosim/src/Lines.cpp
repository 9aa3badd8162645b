#include "Lines.h"

#include <fcntl.h>
#include <termios.h>

#include <array>
#include <cerrno>
#include <charconv>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string_view>
#include <utility>

namespace radiosim {
namespace {

// What is made under this name gets its own when it is complete.
std::filesystem::path PartOf(std::filesystem::path path) {
  return path += ".part";
}

}  // namespace

std::expected<std::string, std::string> Listen(asio::ip::tcp::acceptor& acceptor,
                                               const std::string& address_and_port) {
  const std::string_view text = address_and_port;
  const std::size_t colon = text.rfind(':');
  std::string address(text.substr(0, colon));
  if (address.starts_with('[') && address.ends_with(']')) {
    address = address.substr(1, address.size() - 2);
  }
  std::uint16_t port = 0;
  asio::error_code failure;
  const auto ip = asio::ip::make_address(address, failure);
  const std::string_view digits = colon == std::string::npos ? "" : text.substr(colon + 1);
  const auto [end, wrong] = std::from_chars(digits.data(), digits.data() + digits.size(), port);
  if (failure || wrong != std::errc() || end != digits.data() + digits.size()) {
    return std::unexpected("\"" + address_and_port + "\" is not ADDRESS:PORT");
  }
  const asio::ip::tcp::endpoint endpoint(ip, port);
  try {
    acceptor.open(endpoint.protocol());
    acceptor.set_option(asio::socket_base::reuse_address(true));
    acceptor.bind(endpoint);
    acceptor.listen();
  } catch (const std::system_error& refused) {
    return std::unexpected("cannot listen on " + address_and_port + ": " + refused.what());
  }
  return address;
}

std::expected<PseudoTerminal, std::string> OpenPseudoTerminal(const std::string& link) {
  constexpr int kFlags = O_RDWR | O_NOCTTY | O_CLOEXEC | O_NONBLOCK;
  PseudoTerminal line{.master = zelt::FileDescriptor(::posix_openpt(kFlags)), .slave{}, .name{}};
  const int master = line.master.Get();
  std::array<char, 128> name{};
  if (master < 0 || ::grantpt(master) != 0 || ::unlockpt(master) != 0 ||
      ::ptsname_r(master, name.data(), name.size()) != 0) {
    return std::unexpected(std::string("no pseudo-terminal: ") + std::strerror(errno));
  }
  line.name = name.data();
  line.slave = zelt::FileDescriptor(::open(name.data(), kFlags));
  termios modes{};
  ::tcgetattr(line.slave.Get(), &modes);
  ::cfmakeraw(&modes);
  ::tcsetattr(line.slave.Get(), TCSANOW, &modes);
  std::error_code failure;
  std::filesystem::remove(PartOf(link), failure);
  std::filesystem::create_symlink(line.name, PartOf(link), failure);
  if (!failure) {
    std::filesystem::rename(PartOf(link), link, failure);
  }
  if (failure) {
    return std::unexpected("cannot make the link " + link + ": " + failure.message());
  }
  return line;
}

bool WriteFile(const std::filesystem::path& path, const std::string& text) {
  {
    std::ofstream file(PartOf(path), std::ios::trunc);
    if (!(file << text)) {
      return false;
    }
  }
  std::error_code failure;
  std::filesystem::rename(PartOf(path), path, failure);
  return !failure;
}

}  // namespace radiosim
