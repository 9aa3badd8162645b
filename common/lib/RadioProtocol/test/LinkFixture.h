#pragma once

#include "TestRadio.h"
#include "orka/fake/Deadline.h"
#include "orka/fake/NotificationLog.h"
#include "zelt/fake/LogCapture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace orka::test {

using testing::ElementsAre;
using N = NotifyMessage;
using Kind = pel::FrameKind;

// A camera's radio protocol and the radio that it talks to.
class LinkTest : public testing::Test {
 protected:
  LinkTest() { protocol_.RegisterCallback(seen_.Callback()); }

  void Connect() {
    ASSERT_TRUE(protocol_.StartSocket(radio_.Address(), 7, 20));
    ASSERT_TRUE(radio_.Handshake());
    ASSERT_THAT(seen_.Await(1), ElementsAre(N::HandshakeCompleted));
  }
  // The number of the next frame of this kind that the radio gets; -1 when none comes.
  int NextTransaction(Kind kind) {
    const auto frame = radio_.Next(kind);
    return frame ? frame->header.transaction : -1;
  }

  fake::Deadline deadline_;
  zelt::fake::LogCapture log_;
  TestRadio radio_;
  fake::NotificationLog seen_;
  RadioProtocol protocol_{nullptr, "1.2.3", "camera"};
};

}  // namespace orka::test
