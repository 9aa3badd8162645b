// The firmware transfer: what ModelTest cannot try.

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

}  // namespace
}  // namespace zelt::test
