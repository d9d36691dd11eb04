#pragma once

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>

namespace kova::tests {

/// Number of entries in a folder.
inline long entriesOf(const std::string& folder) {
  return std::distance(std::filesystem::directory_iterator(folder), {});
}

/// Number of descriptors that this process has open, and one for the count itself.
inline long openDescriptors() {
  return entriesOf("/proc/self/fd");
}

/// An empty folder, removed with its content at the end of the test.
class TemporaryFolder {
 public:
  TemporaryFolder() : path_(testing::TempDir() + "/kova-test-XXXXXX") {
    if (mkdtemp(path_.data()) == nullptr) {
      throw std::runtime_error("mkdtemp " + path_);
    }
  }
  ~TemporaryFolder() { std::filesystem::remove_all(path_); }
  TemporaryFolder(const TemporaryFolder&) = delete;
  TemporaryFolder& operator=(const TemporaryFolder&) = delete;

  std::string operator/(const std::string& name) const { return path_ + "/" + name; }
  const std::string& path() const { return path_; }

  long entries() const { return entriesOf(path_); }

 private:
  std::string path_;
};

inline void writeText(const std::string& path, const std::string& text) {
  std::ofstream file(path, std::ios::binary | std::ios::trunc);
  if (!(file << text << std::flush)) {
    throw std::runtime_error("cannot write " + path);
  }
}

/// The file's content, or "(none)" if it cannot be opened.
inline std::string readText(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  if (!file) {
    return "(none)";
  }
  std::ostringstream text;
  text << file.rdbuf();
  return text.str();
}

/// The permissions of a file; 0 if it does not exist.
inline mode_t modeOf(const std::string& path) {
  struct stat info {};
  return stat(path.c_str(), &info) == 0 ? info.st_mode & 07777 : 0;
}

}  // namespace kova::tests
