// The firmware transfer, and the files that the radio asks for: what ModelTest cannot try, and the
// orders of events that are the easiest to get wrong.

#include "Bench.h"

namespace zelt::test {
namespace {

using orka::qrx::Result;

Data Granted(std::uint32_t size) {
  return orka::qrx::FileAccessResponse{
      .result = Result::Success, .file_size = size, .file_name = "fw"};
}
Data Acknowledged(std::uint32_t chunk) {
  return orka::qrx::TransferDataResponse{.result = Result::Success,
                                         .chunk_number = static_cast<std::uint16_t>(chunk)};
}
Kova::TransferFirmwareRequest Request(const std::string& path, const char* target = "fw") {
  return With<Kova::TransferFirmwareRequest>([&](auto& m) {
    m.set_source_file_path(path);
    m.set_target_file_name(target);
  });
}

class Firmware : public Bench {
 protected:
  // Asks for an image, and is granted access: the first chunk is under way.
  void Begin(const std::string& image, std::uint16_t limit) {
    SetAnswers([&](auto& answers) { answers.max_transfer_data_size = limit; });
    From("Upgrade", Request(folder.File("image", image)));
    EXPECT_EQ(Notify(41, Granted(static_cast<std::uint32_t>(image.size()))).back(), sent);
  }
  std::string Acknowledge(std::uint32_t chunk) { return Notify(43, Acknowledged(chunk)).back(); }
  static std::string Outcome(std::uint32_t result) {
    return Send("Upgrade",
                With<Kova::TransferFirmwareResponse>([&](auto& m) { m.set_result(result); }));
  }
  const std::string sent = Timer("Transfer data timer");
};

TEST_F(Firmware, ImageThatShrinksEndsTheTransfer) {
  Begin(std::string(20006, 'x'), 10000);
  std::filesystem::resize_file(folder.path / "image", 10001);
  EXPECT_EQ(Acknowledge(0), Outcome(1));
  EXPECT_EQ(After(9), Trace());
}

TEST_F(Firmware, ChunkNumbersWrap) {
  LogClient::SetLevel(kLogError);
  constexpr std::uint32_t kSize = 65538;
  Begin(std::string(kSize, 'a'), 1);
  for (std::uint32_t chunk = 0; chunk + 1 < kSize; ++chunk) {
    ASSERT_EQ(Notify(43, Acknowledged(chunk)), (Trace{Chunk((chunk + 1) % 65536, "a"), sent}));
  }
  EXPECT_EQ(Acknowledge(1), Outcome(0));
}

TEST_F(Firmware, LateAcknowledgementOfAnEarlierChunkIsIgnored) {
  Begin("abcdefgh", 4);
  Acknowledge(0);
  EXPECT_EQ(WithoutLog(Notify(43, Acknowledged(0))), Trace());
  EXPECT_EQ(Acknowledge(1), Outcome(0));
  EXPECT_EQ(WithoutLog(Notify(43, Acknowledged(1))), Trace());
}

TEST_F(Firmware, ChunkTimerOfTheEarlierTransferAbortsTheOneThatTookOver) {
  Begin("abcdef", 4);
  Wait(1);
  From("Upgrade", Request(folder.path / "image", "fw2"));
  EXPECT_EQ(After(4).front(), Log(3, "HandleTransferDataTimeout",
                                  "FileTransferResponse was not received from RT for fw2"));
  EXPECT_EQ(After(1).front(),
            Log(3, "HandleFileAccessTimeout", "FileAccessResponse was not received from RT for "));
}

TEST_F(Firmware, TimeoutThatIsQueuedBehindItsAnswerNeverRuns) {
  From("Upgrade", Request(folder.File("image", "abc")));
  Post("Upgrade", Request(folder.path / "image"));
  Wait(5);
  EXPECT_EQ(Drain().back(), Timer("File Access timer"));
  Post(41, Granted(3));
  Wait(5);
  EXPECT_EQ(Drain().back(), sent);
  Post(43, Acknowledged(0));
  Wait(5);
  EXPECT_EQ(Drain().back(), Outcome(0));
}

// --- Files that the radio asks for ---------------------------------------------------------------

using Files = Bench;

TEST_F(Files, SecondWriteRequestReplacesTheFirstAndFailsOnce) {
  const auto request = [](std::uint32_t id) {
    return With<Kova::FileAccessWriteRequest>([&](auto& m) { m.set_request_id(id); });
  };
  const auto response = [](std::uint32_t id, std::uint32_t status = 0) {
    return With<Kova::FileAccessWriteResponse>(
        [&](auto& m) { m.set_request_id(id), m.set_status(status); });
  };
  Notify(38, request(1));
  Post(38, request(2));
  Wait(5);  // the first one is due, behind the second
  EXPECT_EQ(Drain().back(), Timer("File access write response timer"));
  EXPECT_EQ(WithoutLog(From("Peer", response(1))), Trace());
  EXPECT_EQ(WithoutLog(After(5)), Trace{Radio(26, 0, response(2, 19))});
  EXPECT_EQ(WithoutLog(From("Peer", response(2))), Trace());
}

TEST_F(Files, TwoHandlesOfOneNameFailOnceAndAnAnswerEndsItEvenWhenDue) {
  const auto request = [](std::uint32_t id) {
    return With<Kova::FileHandleOpenRequest>(
        [&](auto& m) { m.set_file_name("a"), m.set_handle_id(id); });
  };
  const auto response = With<Kova::FileHandleOpenResponse>([](auto& m) { m.set_file_name("a"); });
  const Trace answered = {"convert", Radio(37, 0, orka::FileHandleRespWrapper())};
  Notify(51, request(1));
  Wait(1);
  Notify(51, request(0x10003));
  EXPECT_EQ(After(4), Trace());
  EXPECT_EQ(
      WithoutLog(After(1)),
      Trace{Radio(37, 0,
                  orka::FileHandleRespWrapper{.handle_id = 3, .status = 17925276, .data = {}})});
  EXPECT_EQ(WithoutLog(From("Peer", response)), answered);
  Notify(51, request(1));
  Post("Peer", response);
  Wait(5);
  EXPECT_EQ(WithoutLog(Drain()), answered);
}

}  // namespace
}  // namespace zelt::test
