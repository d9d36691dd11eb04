#pragma once

#include <string>

#include "Exit.h"

namespace kova::ctl {

/// Where the old and the new password come from. They are never taken from the command line, where
/// every process of the machine could read them.
struct PasswordSources {
  std::string oldFile;     ///< the first line of this file
  std::string newFile;     ///< likewise
  bool fromInput = false;  ///< two lines of standard input: the old one, the new one
};

/// A secret text, wiped from memory when it is destroyed.
class Secret {
 public:
  Secret() = default;
  ~Secret();
  Secret(const Secret&) = delete;
  Secret& operator=(const Secret&) = delete;

  std::string text;
};

/// Reads both passwords, asking on the terminal without echo for what no file gives; a new one that
/// is typed is asked for twice.
/// @return Ok; Usage when there is nothing to read from or a password is empty or longer than the
/// 64 bytes that the camera takes; Local when a file cannot be read or the two new ones differ; the
/// stop status. Failures are told on standard error.
Exit readPasswords(const PasswordSources& sources, Secret& oldPassword, Secret& newPassword);

}  // namespace kova::ctl
