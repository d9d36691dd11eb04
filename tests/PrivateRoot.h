#pragma once

#include <linux/magic.h>
#include <sys/statfs.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <string_view>

namespace kova::tests {

/// Whether this process runs in tests/private-root rather than on the machine's own files.
inline bool inPrivateRoot() {
  std::array<char, 64> host{};
  struct statfs etc {};
  return gethostname(host.data(), host.size() - 1) == 0 &&
         std::string_view(host.data()) == "kova-test" && statfs("/etc", &etc) == 0 &&
         etc.f_type == TMPFS_MAGIC;
}

/// Must be called before every change of a system file. Outside of a private root it ends the
/// process at once: a failed assertion would only leave its function, and the test would go on to
/// change the machine.
inline void requirePrivateRoot() {
  if (!inPrivateRoot()) {
    std::fputs("This program changes system files: run it through tests/private-root.\n", stderr);
    _exit(125);
  }
}

}  // namespace kova::tests
