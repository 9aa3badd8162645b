// What is refused at the door, what is held back instead, and what always comes in; and that
// nothing that was taken is lost.

#include "Bench.h"

#include <condition_variable>
#include <thread>

namespace zelt::test {
namespace {

constexpr std::size_t kMostTasks = 16384;
constexpr std::size_t kShare = kMostTasks / 4;

Collaboration::IoTD2CDataMessage Data(std::size_t bytes) {
  return With<Collaboration::IoTD2CDataMessage>(
      [&](auto& m) { m.set_data(std::string(bytes, 'x')); });
}
std::size_t Radioed(const Trace& trace) {
  return static_cast<std::size_t>(std::ranges::count_if(
      trace, [](const std::string& line) { return line.starts_with("radio "); }));
}

class Limits : public BenchTest {
 protected:
  Limits() { LogClient::SetLevel(kLogError); }
  // How many of `count` are taken.
  std::size_t Flood(std::string_view sender, std::size_t count, const MessageLite& message) {
    std::size_t taken = 0;
    for (std::size_t i = 0; i < count; ++i) {
      taken += Post(sender, message) ? 1U : 0U;
    }
    return taken;
  }
};

TEST_F(Limits, OneSenderLeavesRoomForOthersAndWhatWasTakenRuns) {
  const Kova::BatteryLevelRequest message;
  for (int round = 0; round < 2; ++round) {  // the second finds all given back
    EXPECT_EQ(Flood("A", kShare + 100, message), kShare);
    EXPECT_EQ(Flood("B", 10, message), 10U);
    EXPECT_EQ(Flood("B", kShare, message), kShare - 10);
    EXPECT_EQ(Flood("C", kShare, message), kShare);
    EXPECT_EQ(Flood("D", kShare - 1, message), kShare - 1);
    EXPECT_EQ(Flood("E", 2, message), 1U);  // that was all
    EXPECT_EQ(Radioed(Drain()), kMostTasks);
  }
}

TEST_F(Limits, WhatMustNotBeLostIsTakenByAFullQueue) {
  Notify(38, Kova::FileAccessWriteRequest());
  for (const char* sender : {"A", "B", "C", "D"}) {
    EXPECT_EQ(Flood(sender, kShare, Kova::BatteryLevelRequest()), kShare);
  }
  EXPECT_FALSE(Post("E", Kova::BatteryLevelRequest()));
  Wait(5);
  Post(47);
  model->Ipc().Subscribe("Kova.RTConnectionStatus", "New");
  Trace trace = WithoutLog(Drain());
  trace.erase(trace.begin(), trace.begin() + kMostTasks);
  const auto failure = With<Kova::FileAccessWriteResponse>([](auto& m) { m.set_status(19); });
  EXPECT_EQ(trace, (Trace{Radio(26, 0, failure), Publish(Status(6)), Send("New", Status(6)),
                          Publish(Status(4))}));
}

TEST_F(Limits, LargeMessagesOfAllSendersStayBelowTheBound) {
  constexpr std::size_t kLarge = std::size_t{15} << 20U;
  for (const char* sender : {"A", "B", "C", "D"}) {
    EXPECT_EQ(Flood(sender, 2, Data(kLarge)), 1U) << sender;
  }
  EXPECT_EQ(Flood("E", 1, Data(kLarge)), 0U);
}

TEST_F(Limits, MessageOfManyPartsCountsWhatItTakesInMemory) {
  Kova::GattConfigMsg parts;  // 64 KB on the bus
  for (int i = 0; i < 32000; ++i) {
    parts.mutable_set_request()->add_properties();
  }
  EXPECT_LE(Flood("A", 40, parts), 20U);
}

TEST_F(Limits, RefusedMessageIsLoggedAsReceivedAndLeavesNoTraceBesides) {
  Flood("A", kShare, Kova::BatteryLevelRequest());
  LogClient::SetLevel(kLogVerbose);
  journal.Take();
  EXPECT_FALSE(Post("A", Kova::RtVersionMsg()));
  EXPECT_EQ(journal.Take(),
            (Trace{Log(8, "RegisterCallback", "Calling ipc callback for Kova.RtVersionMsg", 0x8016),
                   Log(7, "RegisterCallback", "Received [Kova.RtVersionMsg] from [A]", 0x8016)}));
  EXPECT_EQ(context.TaskQueue().Size(), kShare);
}

// --- To the radio --------------------------------------------------------------------------------

TEST_F(Limits, WhatIsTakenForTheRadioFitsTheLinkAndTheRestIsRefused) {
  SetAnswers([](auto& answers) { answers.send_room = std::size_t{256} * 1024; });
  for (int round = 0; round < 2; ++round) {
    EXPECT_EQ(Flood("A", 32, Data(std::size_t{16} * 1024)), 15U);
    EXPECT_EQ(Radioed(Drain()), 15U);
  }
  // What the queue refuses holds no room: 64 bytes each, the link has room for 4096 of them.
  EXPECT_EQ(Flood("A", 100, Kova::SetDateTimeMsg()), 100U);
  EXPECT_EQ(Flood("A", 2 * kShare, Kova::BatteryLevelRequest()), kShare - 100);
  EXPECT_EQ(Flood("B", 1, Kova::BatteryLevelRequest()), 0U);
  SetAnswers([](auto& answers) { answers.send_room = std::size_t{512} * 1024; });
  EXPECT_EQ(Flood("B", 2 * kShare, Kova::BatteryLevelRequest()), kShare);
}

TEST_F(Limits, MessageThatIsTooLongForAnyFrameIsTakenAndLeftToTheLink) {
  SetAnswers([](auto& answers) { answers.send_room = std::size_t{256} * 1024; });
  EXPECT_EQ(Flood("A", 1, Data(std::size_t{1} << 20U)), 1U);
  EXPECT_EQ(Radioed(Drain()), 1U);
}

// --- From the radio ------------------------------------------------------------------------------

const orka::qrx::FileAccessResponse kLong{
    .result = {}, .file_size = 0, .file_name = std::string(60000, 'x')};
constexpr std::size_t kAbove = 18;  // of them are more than a megabyte

TEST_F(Limits, RadioIsHeldAboveAMegabyteAlsoOnANewLinkAndGoesOnAtHalf) {
  const auto count = [](const Trace& trace, const char* line) {
    return std::ranges::count(trace, line);
  };
  for (std::size_t i = 1; i < kAbove; ++i) {
    Post(41, kLong);
  }
  EXPECT_EQ(count(journal.Take(), "hold"), 0);
  Post(41, kLong);
  EXPECT_EQ(count(journal.Take(), "hold"), 1);
  context.StopRadioProtocol();
  context.StartRadioProtocol();
  journal.Take();
  Post(41, kLong);
  EXPECT_EQ(journal.Take(), Trace{"hold"});
  for (std::size_t waiting = kAbove + 1; waiting > 8; --waiting) {
    EXPECT_EQ(journal.Take(), Trace());
    context.TaskQueue().Pop()();
  }
  EXPECT_EQ(journal.Take(), Trace{"continue"});
  EXPECT_EQ(Drain(), Trace());
}

// Reads its line on a thread of its own, but only while it is not held.
class ReadingRadio : public orka::fake::FakeRadioProtocol {
 public:
  // False when it was held for so long that nobody will let it go on.
  bool Read(int count) {
    for (int i = 0; i < count; ++i) {
      std::unique_lock lock(mutex_);
      if (!changed_.wait_for(lock, std::chrono::seconds(20), [this] { return !held_; })) {
        return false;
      }
      lock.unlock();
      Deliver(orka::NotifyMessage::FileAccess, kLong);
    }
    return true;
  }
  void HoldReceiving() override { Set(true); }
  void ContinueReceiving() override { Set(false); }

 private:
  void Set(bool held) {
    const std::lock_guard lock(mutex_);
    held_ = held;
    changed_.notify_all();
  }

  std::mutex mutex_;
  std::condition_variable changed_;
  bool held_ = false;  // guarded by mutex_
};

TEST_F(Limits, RadioThatIsHeldIsNeverForgottenAndLosesNothing) {
  constexpr int kCount = 20000;
  KovaContext other(model, std::make_unique<fake::FakeConfigReader>(config));
  auto made = std::make_unique<ReadingRadio>();
  ReadingRadio& reading = *made;
  other.Init(std::move(made), nullptr);
  other.StartRadioProtocol();
  std::atomic<bool> over = false;
  bool read = false;
  std::thread reader([&] {
    read = reading.Read(kCount);
    over = true;
  });
  auto& queue = other.TaskQueue();
  int taken = 0;
  std::size_t most = 0;
  while (!over || queue.Size() > 0) {
    while (!over && queue.Size() < kAbove) {  // until it is to be held, and then at once all
      std::this_thread::yield();
    }
    for (most = std::max(most, queue.Size()); queue.Size() > 0; ++taken) {
      queue.Pop()();
    }
  }
  reader.join();
  EXPECT_TRUE(read);
  EXPECT_EQ(taken, kCount);
  EXPECT_LE(most, kAbove);
}

// --- Subscribers ---------------------------------------------------------------------------------

TEST_F(Limits, SubscriberThatRepeatsItselfIsToldOnceForEachTopic) {
  for (int round = 0; round < 2; ++round) {
    for (int i = 0; i < 500; ++i) {
      for (const char* topic : {"Kova.RTConnectionStatus", "Collaboration.RadioConnectionMsg"}) {
        model->Ipc().Subscribe(topic, "New");
        model->Ipc().Subscribe(topic, "Other");
      }
    }
    EXPECT_EQ(context.TaskQueue().Size(), 4U);
    EXPECT_EQ(Drain().size(), 4U);
  }
}

// --- The firmware transfer -----------------------------------------------------------------------

class Firmware : public BenchTest {
 protected:
  // Asks for an image, and is granted access: the first chunk is under way.
  void Begin(const std::string& image, std::uint16_t limit) {
    SetAnswers([&](auto& answers) { answers.max_transfer_data_size = limit; });
    Kova::TransferFirmwareRequest request;
    request.set_source_file_path(folder.File("image", image));
    From("Upgrade", request);
    const auto size = static_cast<std::uint32_t>(image.size());
    EXPECT_EQ(Notify(41, orka::qrx::FileAccessResponse{{}, size, ""}).back(), sent);
  }
  Trace Acknowledge(std::uint32_t chunk) {
    return Notify(43, orka::qrx::TransferDataResponse{{}, static_cast<std::uint16_t>(chunk)});
  }
  const std::string sent = Timer("Transfer data timer");
};

TEST_F(Firmware, ImageThatShrinksEndsTheTransfer) {
  Begin(std::string(20006, 'x'), 10000);  // more than a stream reads ahead
  std::filesystem::resize_file(folder.path / "image", 10001);
  const auto failed = FromText<Kova::TransferFirmwareResponse>("result: 1");
  EXPECT_EQ(Acknowledge(0).back(), Send("Upgrade", failed));
}

TEST_F(Firmware, ChunkNumbersWrap) {
  LogClient::SetLevel(kLogError);
  constexpr std::uint32_t kSize = 65538;
  Begin(std::string(kSize, 'a'), 1);
  for (std::uint32_t chunk = 0; chunk + 1 < kSize; ++chunk) {
    ASSERT_EQ(Acknowledge(chunk), (Trace{Chunk((chunk + 1) % 65536, "a"), sent}));
  }
  EXPECT_EQ(Acknowledge(1).back(), Send("Upgrade", Kova::TransferFirmwareResponse()));
}

}  // namespace
}  // namespace zelt::test
