#include "Control.h"

#include <sys/stat.h>
#include <unistd.h>
#include <asio/buffer.hpp>
#include <asio/read.hpp>
#include <asio/read_until.hpp>
#include <asio/write.hpp>

#include <iostream>
#include <sstream>
#include <utility>

namespace radiosim {

using Protocol = asio::local::stream_protocol;

struct Control::Client {
  explicit Client(Protocol::socket connected) : socket(std::move(connected)) {}
  Protocol::socket socket;
  std::string in;
  std::string out;
};

namespace {

constexpr std::size_t kMaxLine = 1024UL * 1024;
constexpr std::chrono::milliseconds kAcceptAgainAfter{100};

}  // namespace

std::expected<void, std::string> Control::Start(const std::string& path) {
  try {
    const Protocol::endpoint endpoint(path);
    Protocol::socket probe(acceptor_.get_executor());
    asio::error_code absent;
    absent = probe.connect(endpoint, absent);
    if (!absent) {
      return std::unexpected(path + " is served by another process");
    }
    if (absent == asio::error::connection_refused) {
      ::unlink(path.c_str());
    }
    acceptor_.open();
    const mode_t before = ::umask(S_IRWXG | S_IRWXO);
    asio::error_code failure;
    failure = acceptor_.bind(endpoint, failure);
    ::umask(before);
    if (failure) {
      throw std::system_error(failure);
    }
    acceptor_.listen();
  } catch (const std::system_error& failure) {
    return std::unexpected("cannot serve " + path + ": " + failure.what());
  }
  path_ = path;
  Accept();
  return {};
}

void Control::Stop() {
  if (!path_.empty()) {
    ::unlink(std::exchange(path_, {}).c_str());
    asio::error_code ignored;
    ignored = acceptor_.close(ignored);
    accept_again_.cancel();
  }
}

void Control::Accept() {
  acceptor_.async_accept([this, alive = std::weak_ptr<void>(alive_)](const asio::error_code& error,
                                                                     Protocol::socket socket) {
    if (alive.expired() || path_.empty()) {
      return;
    }
    if (!error) {
      Read(std::make_shared<Client>(std::move(socket)));
      Accept();
      return;
    }
    // An error such as too many open files would come again at once.
    accept_again_.expires_after(kAcceptAgainAfter);
    accept_again_.async_wait([this, alive](const asio::error_code& cancelled) {
      if (!cancelled && !alive.expired() && !path_.empty()) {
        Accept();
      }
    });
  });
}

void Control::Read(const std::shared_ptr<Client>& client) {
  asio::async_read_until(client->socket, asio::dynamic_buffer(client->in, kMaxLine), '\n',
                         [this, client, alive = std::weak_ptr<void>(alive_)](
                             const asio::error_code& error, std::size_t count) {
                           if (error || alive.expired()) {
                             return;  // gone, or a line without end
                           }
                           const std::string line = client->in.substr(0, count - 1);
                           client->in.erase(0, count);
                           const Simulator::Reply reply = simulator_.Command(line);
                           client->out = reply ? *reply + "ok\n" : "error: " + reply.error() + "\n";
                           asio::async_write(client->socket, asio::buffer(client->out),
                                             [this, client, alive](const asio::error_code& failure,
                                                                   std::size_t /*count*/) {
                                               if (!failure && !alive.expired() && !path_.empty()) {
                                                 Read(client);
                                               }
                                             });
                         });
}

int RunControlClient(const std::string& path, const std::string& command,
                     std::chrono::milliseconds timeout) {
  if (command.find_first_of("\r\n") != std::string::npos) {
    std::cerr << "error: a command is one line\n";
    return 1;
  }
  try {
    asio::io_context io;
    Protocol::socket socket(io);
    socket.connect(Protocol::endpoint(path));
    asio::write(socket, asio::buffer(command + '\n'));
    socket.shutdown(Protocol::socket::shutdown_send);
    std::string reply;
    asio::error_code end = asio::error::timed_out;
    asio::async_read(socket, asio::dynamic_buffer(reply),
                     [&end](const asio::error_code& error, std::size_t /*count*/) { end = error; });
    io.run_for(timeout);
    std::istringstream lines(reply);
    for (std::string line; std::getline(lines, line);) {
      if (line == "ok") {
        return 0;
      }
      if (line.starts_with("error: ")) {
        std::cerr << line << '\n';
        return 1;
      }
      std::cout << line << '\n';
    }
    throw std::system_error(end);
  } catch (const std::system_error& failure) {  // a path too long for a socket is one, too
    std::cerr << "error: no answer on " << path << ": " << failure.what() << '\n';
    return 2;
  }
}

}  // namespace radiosim
