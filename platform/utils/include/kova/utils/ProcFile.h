#pragma once

#include <string>
#include <string_view>

#include "kova/utils/UniqueFd.h"

namespace kova::utils {

/// A file of procfs or sysfs that is read repeatedly. It is opened by the first read; keeping it
/// open cuts the cost of a read to a quarter.
class ProcFile {
 public:
  /// How the kernel generates the content (see filesystems/seq_file in its documentation): in one
  /// piece, complete once a read does not fill the buffer (most files), or record by record,
  /// complete once a read returns 0 bytes (lists of interfaces, routes, processors).
  enum class Form { OnePiece, Records };

  ProcFile(std::string path, Form form) : path_(std::move(path)), form_(form) {}

  /// Opens the file unless it is open. Returns 0 or an errno value.
  int open();

  /// Reads the current content; `text` is valid until the next call. Returns 0, or an errno value
  /// and an empty `text`.
  int read(std::string_view& text);

 private:
  std::string path_;
  Form form_;
  UniqueFd fd_;
  std::string buffer_;
};

}  // namespace kova::utils
