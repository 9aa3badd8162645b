#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>

namespace zelt::fake {

// A folder of the test's own, removed with it.
class TempFolder {
 public:
  TempFolder() {
    std::string name = std::filesystem::temp_directory_path() / "zelt-XXXXXX";
    if (mkdtemp(name.data()) == nullptr) {
      throw std::runtime_error("cannot create " + name);
    }
    path = name;
  }
  TempFolder(const TempFolder&) = delete;
  TempFolder& operator=(const TempFolder&) = delete;
  ~TempFolder() { std::filesystem::remove_all(path); }

  // Writes a file, and the folders that it is in; returns its path.
  std::string File(std::string_view name, std::string_view content) const {
    std::filesystem::create_directories((path / name).parent_path());
    std::ofstream(path / name, std::ios::binary) << content;
    return path / name;
  }
  std::string Read(std::string_view name) const {
    return (std::ostringstream() << std::ifstream(path / name).rdbuf()).str();
  }

  std::filesystem::path path;
};

// The same as ZELT_ROOT, below which the device's files are found.
class RootFolder : public TempFolder {
 public:
  RootFolder() { setenv("ZELT_ROOT", path.c_str(), 1); }
  ~RootFolder() { unsetenv("ZELT_ROOT"); }
};

}  // namespace zelt::fake
