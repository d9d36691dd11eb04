#include "ProcFile.h"

#include <fcntl.h>

#include <algorithm>
#include <cerrno>

#include "UniqueFd.h"

namespace kova::utils {
namespace {

constexpr std::size_t kFirstRead = 4096;

}  // namespace

int readFromStart(int fd, std::string& text) {
  std::size_t filled = 0;
  text.resize(std::max(text.capacity(), kFirstRead));
  while (true) {
    if (filled == text.size()) text.resize(2 * filled);
    const ssize_t got =
        pread(fd, text.data() + filled, text.size() - filled, static_cast<off_t>(filled));
    if (got > 0) {
      filled += static_cast<std::size_t>(got);
    } else if (got == 0) {
      text.resize(filled);
      return 0;
    } else if (errno != EINTR) {
      const int error = errno;
      text.clear();
      return error;
    }
  }
}

int readSmallFile(const std::string& path, std::string& text) {
  const UniqueFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (!fd) {
    text.clear();
    return errno;
  }
  return readFromStart(fd.Get(), text);
}

}  // namespace kova::utils
