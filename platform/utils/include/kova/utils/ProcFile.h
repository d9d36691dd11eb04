#pragma once

#include <string>
#include <string_view>

#include "kova/utils/UniqueFd.h"

namespace kova::utils {

/// A file of procfs or sysfs, read again and again. It is opened at the first reading and kept
/// open: of a reading's cost that leaves a quarter.
class ProcFile {
 public:
  /// How the kernel makes the content (its documentation, filesystems/seq_file): in one piece,
  /// complete as soon as a read leaves room (most files), or record by record, where only a read of
  /// nothing tells the end (lists of interfaces, routes, processors).
  enum class Form { kOnePiece, kRecords };

  ProcFile(std::string path, Form form) : path_(std::move(path)), form_(form) {}

  /// Opens the file if that has not been done; 0, or an errno value.
  int Open();

  /// Reads the current content into `text`, which holds until the next reading. 0, or an errno
  /// value with `text` empty.
  int Read(std::string_view& text);

 private:
  std::string path_;
  Form form_;
  UniqueFd fd_;
  std::string buffer_;
};

}  // namespace kova::utils
