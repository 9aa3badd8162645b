#include "FileStore.h"

#include <openssl/evp.h>

#include <algorithm>
#include <array>
#include <iomanip>
#include <sstream>
#include <utility>

namespace radiosim {
namespace {

using orka::qrx::Result;

constexpr std::uint8_t kOperationWrite = 1;
constexpr std::uint32_t kAccessReplace = 2;
constexpr std::uint16_t kKindFileData = 3;
constexpr std::size_t kMaxName = 128;

// A name, not a path: what could lead out of the folder or hide in it is refused.
bool IsPlainName(const std::string& name) {
  return !name.empty() && name.size() <= kMaxName && name.front() != '.' &&
         std::ranges::all_of(name, [](char c) {
           const auto byte = static_cast<unsigned char>(c);
           return byte > 0x20 && byte != 0x7F && c != '/' && c != '\\';
         });
}

}  // namespace

FileStore::FileStore(std::filesystem::path folder, Log log)
    : folder_(std::move(folder)),
      log_(std::move(log)),
      digest_(EVP_MD_CTX_new(), EVP_MD_CTX_free) {}

FileStore::~FileStore() {
  Abort();
}

Result FileStore::Begin(const orka::qrx::FileAccessRequest& request) {
  Abort();
  if (request.operation != kOperationWrite || request.access_code != kAccessReplace) {
    return Result::NotSupported;
  }
  if (!IsPlainName(request.file_name)) {
    return Result::InvalidParameter;
  }
  if (!folder_.empty()) {
    std::error_code failure;
    std::filesystem::create_directories(folder_, failure);
    const auto space = std::filesystem::space(folder_, failure);
    if (failure) {
      return Result::AccessDenied;
    }
    if (space.available < request.file_size) {
      return Result::NoSpace;
    }
    part_ = folder_ / ("." + request.file_name + ".part");
    file_.open(part_, std::ios::binary | std::ios::trunc);
    if (!file_) {
      file_.clear();
      return Result::AccessDenied;
    }
  }
  open_ = true;
  name_ = request.file_name;
  size_ = request.file_size;
  received_ = 0;
  next_chunk_ = 0;
  EVP_DigestInit_ex(digest_.get(), EVP_sha256(), nullptr);
  return size_ == 0 ? Complete() : Result::Success;
}

Result FileStore::Write(const orka::qrx::TransferDataRequest& request,
                        std::span<const std::uint8_t> bytes) {
  const bool repeated =
      received_ > 0 && static_cast<std::uint16_t>(request.chunk_number + 1) == next_chunk_;
  if (repeated) {
    return Result::Success;
  }
  if (!open_ || request.kind != kKindFileData || request.chunk_number != next_chunk_ ||
      bytes.empty() || bytes.size() > size_ - received_) {
    return Result::InvalidParameter;
  }
  if (file_.is_open() && !file_.write(reinterpret_cast<const char*>(bytes.data()),
                                      static_cast<std::streamsize>(bytes.size()))) {
    Abort();
    return Result::NoSpace;
  }
  EVP_DigestUpdate(digest_.get(), bytes.data(), bytes.size());
  received_ += bytes.size();
  ++next_chunk_;
  return received_ == size_ ? Complete() : Result::Success;
}

Result FileStore::Complete() {
  open_ = false;
  if (file_.is_open()) {
    file_.close();
    std::error_code failure;
    std::filesystem::rename(part_, folder_ / name_, failure);
    if (!file_ || failure) {
      file_.clear();
      return Result::Failure;
    }
  }
  std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
  unsigned int length = 0;
  EVP_DigestFinal_ex(digest_.get(), digest.data(), &length);
  std::ostringstream text;
  text << std::hex << std::setfill('0');
  for (unsigned int i = 0; i < length; ++i) {
    text << std::setw(2) << static_cast<unsigned>(digest[i]);
  }
  last_sha256_ = text.str();
  log_("stored " + name_ + ", " + std::to_string(received_) + " bytes, sha256 " + last_sha256_);
  return Result::Success;
}

void FileStore::Abort() {
  if (!std::exchange(open_, false)) {
    return;
  }
  if (file_.is_open()) {
    file_.close();
    file_.clear();
    std::error_code ignored;
    std::filesystem::remove(part_, ignored);
  }
  log_("gave up " + name_ + " after " + std::to_string(received_) + " of " + std::to_string(size_) +
       " bytes");
  received_ = 0;
}

bool FileStore::Has(const std::string& name) const {
  std::error_code ignored;
  return IsPlainName(name) && !folder_.empty() && std::filesystem::exists(folder_ / name, ignored);
}

}  // namespace radiosim
