#pragma once

#include <sys/stat.h>

#include <string>

#include "../../tests/TemporaryFolder.h"

namespace kova::tests {

/// Writes an executable shell script and returns its path.
inline std::string writeScript(const TemporaryFolder& folder, const std::string& name,
                               const std::string& body) {
  std::string path = folder / name;
  writeText(path, "#!/bin/sh\n" + body + "\n");
  chmod(path.c_str(), 0755);
  return path;
}

}  // namespace kova::tests
