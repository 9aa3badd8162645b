#pragma once

#include "orka/qrx.h"

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <span>
#include <string>

struct evp_md_ctx_st;

namespace radiosim {

// Where the radio keeps the files that the camera writes: a folder, or nowhere. One file at a
// time; it gets its name when it is complete.
class FileStore {
 public:
  using Log = std::function<void(const std::string& line)>;

  // An empty `folder` takes files and forgets them. `log` is told of each file that is complete,
  // with size and SHA-256.
  FileStore(std::filesystem::path folder, Log log);
  FileStore(const FileStore&) = delete;
  FileStore& operator=(const FileStore&) = delete;
  ~FileStore();  // forgets a file that is not complete

  // Begins a file; one that was not complete is forgotten.
  orka::qrx::Result Begin(const orka::qrx::FileAccessRequest& request);

  // Takes the next bytes. The chunk before may come again, and is not written again.
  orka::qrx::Result Write(const orka::qrx::TransferDataRequest& request,
                          std::span<const std::uint8_t> bytes);

  // Forgets the file that is not complete.
  void Abort();

  // Tells whether a file of this name is complete.
  bool Has(const std::string& name) const;

  bool InTransfer() const { return open_; }
  std::uint64_t Received() const { return received_; }
  const std::string& LastName() const { return name_; }
  const std::string& LastSha256() const { return last_sha256_; }  // of the last complete file

 private:
  orka::qrx::Result Complete();

  const std::filesystem::path folder_;
  const Log log_;
  bool open_ = false;
  std::string name_;
  std::uint32_t size_ = 0;
  std::uint64_t received_ = 0;
  std::uint16_t next_chunk_ = 0;
  std::ofstream file_;
  std::filesystem::path part_;  // the file while it is not complete
  std::unique_ptr<evp_md_ctx_st, void (*)(evp_md_ctx_st*)> digest_;
  std::string last_sha256_;
};

}  // namespace radiosim
