#pragma once

#include <sys/stat.h>

#include <string>

#include "kova/utils/UniqueFd.h"

namespace kova::utils::internal {

/// The folder of the file that a path names. It is held open, so that a later change of the path
/// cannot redirect an access (a TOCTOU race).
class Folder {
 public:
  explicit Folder(const std::string& path);

  /// False, with `errno` set, if the folder cannot be opened.
  bool isOpen() const { return static_cast<bool>(fd_); }
  /// Whether users other than its owner may create files there, as in /tmp.
  bool isShared() const { return shared_; }

  int fd() const { return fd_.get(); }
  /// The file's name in the folder; "." if the path names the folder itself.
  const char* name() const { return name_.c_str(); }

 private:
  std::string name_;
  UniqueFd fd_;
  bool shared_ = false;
};

/// Why a file in a shared folder cannot be trusted: another user owns it and may change it at any
/// time, or it has a second hard link, possibly to a file of the system.
/// @param writes whether it is opened for writing, which also rejects files of root and of the
/// trusted user
/// @return null for a trusted file
const char* objectionTo(const struct stat& file, bool writes);

}  // namespace kova::utils::internal
