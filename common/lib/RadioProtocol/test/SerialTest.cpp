#include "LinkFixture.h"

#include <sys/resource.h>
#include <termios.h>
#include <unistd.h>

#include <chrono>
#include <cstddef>

namespace orka::test {
namespace {

class SerialTest : public LinkTest {
 protected:
  UartSettings Settings() const { return {.device = pty_.Device(), .baud_rate = 1500000}; }
  TestRadio pty_{TestRadio::On::Pty};
};

TEST_F(SerialTest, LineIsSetUpAsAsked) {
  const UartSettings plain = Settings();
  UartSettings other = plain;
  other.baud_rate = 115200;
  other.stop_bits = 2;
  other.flow_control = 1;
  other.modem_control = true;
  other.read_timeout = 0;
  struct Expected {
    UartSettings settings;
    speed_t speed;
    tcflag_t flags;  // of those below
    int time;
  };
  for (const auto& [settings, speed, flags, time] :
       {Expected{plain, B1500000, CS8 | CREAD | CLOCAL, 5},
        Expected{other, B115200, CS8 | CREAD | CSTOPB | CRTSCTS, 0}}) {
    termios cooked{};
    ASSERT_EQ(::tcgetattr(pty_.Line(), &cooked), 0);
    cooked.c_iflag |= ICRNL | IXON | ISTRIP;
    cooked.c_lflag |= ICANON | ECHO | ISIG;
    cooked.c_oflag |= OPOST;
    ASSERT_EQ(::tcsetattr(pty_.Line(), TCSANOW, &cooked), 0);
    ASSERT_TRUE(protocol_.StartUart(settings, 0, 20));
    termios modes{};
    ASSERT_EQ(::tcgetattr(pty_.Line(), &modes), 0);
    EXPECT_EQ(::cfgetispeed(&modes), speed);
    EXPECT_EQ(::cfgetospeed(&modes), speed);
    EXPECT_EQ(modes.c_cflag & (CSIZE | CREAD | CSTOPB | CRTSCTS | CLOCAL | PARENB), flags);
    EXPECT_EQ(modes.c_iflag & (ICRNL | INLCR | IXON | IXOFF | ISTRIP | BRKINT), 0U);
    EXPECT_EQ(modes.c_lflag & (ICANON | ECHO | ISIG | IEXTEN), 0U);
    EXPECT_EQ(modes.c_oflag & OPOST, 0U);
    EXPECT_EQ(modes.c_cc[VMIN], 1);
    EXPECT_EQ(modes.c_cc[VTIME], time);
    protocol_.Stop();
  }
  UartSettings parity = plain;
  parity.parity = 1;
  EXPECT_FALSE(protocol_.StartUart(parity, 0, 20));
  EXPECT_TRUE(log_.Contains("does not do this parity")) << "a pseudo-terminal has none";
}

TEST_F(SerialTest, LineIsExclusiveAndNoticesTheCableGoing) {
  for (std::size_t round = 1; round <= 2; ++round) {  // the second finds it free again
    ASSERT_TRUE(protocol_.StartUart(Settings(), 0, 20));
    RadioProtocol second(nullptr, "", "");
    EXPECT_FALSE(second.StartUart(Settings(), 0, 20));
    EXPECT_TRUE(log_.Contains(pty_.Device() + " is in use"));
    ASSERT_TRUE(pty_.Handshake());
    seen_.Await(round);
    EXPECT_EQ(protocol_.GetSendRoom(), std::chrono::seconds(1) / std::chrono::nanoseconds(6666));
    protocol_.SendToRadio(Kova::RtVersionRequest(), 0);
    EXPECT_TRUE(pty_.Next(Kind::Request));
    if (round == 1) {
      protocol_.Stop();
    }
  }
  pty_.Hang();
  EXPECT_THAT(seen_.Await(3),
              ElementsAre(N::HandshakeCompleted, N::HandshakeCompleted, N::ConnectionLost));
}

// The device is opened, and then there is no descriptor left for the link.
// The sanitizer of undefined behaviour opens a pipe to look whether memory can be read, and takes
// an object for none when there is no descriptor left.
#ifndef __SANITIZE_ADDRESS__
TEST_F(SerialTest, StartThatFailsHalfwayLeavesTheDeviceFree) {
  rlimit before{};
  ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &before), 0);
  const zelt::FileDescriptor next(::dup(pty_.Line()));
  const auto few = static_cast<rlim_t>(next.Get()) + 2;  // one more than are open
  const rlimit limit{few, before.rlim_max};
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &limit), 0);
  EXPECT_FALSE(protocol_.StartUart(Settings(), 0, 20));
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &before), 0);
  EXPECT_TRUE(log_.Contains("Too many open files"));
  EXPECT_FALSE(log_.Contains("cannot open"));
  RadioProtocol other(nullptr, "", "");
  EXPECT_TRUE(other.StartUart(Settings(), 0, 20));
}
#endif

}  // namespace
}  // namespace orka::test
