#pragma once

#include "zelt/FileDescriptor.h"

#include <asio/ip/tcp.hpp>

#include <expected>
#include <filesystem>
#include <string>

// How the simulator's lines are opened. What fails is told in words.
namespace radiosim {

// Listens on "ADDRESS:PORT", port 0 for any. Returns the address.
std::expected<std::string, std::string> Listen(asio::ip::tcp::acceptor& acceptor,
                                               const std::string& address_and_port);

struct PseudoTerminal {
  zelt::FileDescriptor master;
  zelt::FileDescriptor slave;  // to be kept open, so that a camera may come and go
  std::string name;
};

// Opens a pseudo-terminal; `link` then leads to it.
std::expected<PseudoTerminal, std::string> OpenPseudoTerminal(const std::string& link);

// Writes a file that is there as a whole or not at all.
bool WriteFile(const std::filesystem::path& path, const std::string& text);

}  // namespace radiosim
