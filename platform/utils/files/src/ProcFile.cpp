#include "kova/utils/ProcFile.h"

#include <fcntl.h>

#include <cerrno>

namespace kova::utils {
namespace {

constexpr std::size_t kFirstRead = 4096;

}  // namespace

int ProcFile::open() {
  if (!fd_) fd_ = UniqueFd(::open(path_.c_str(), O_RDONLY | O_CLOEXEC));
  return fd_ ? 0 : errno;
}

int ProcFile::read(std::string_view& text) {
  text = {};
  if (const int error = open(); error != 0) return error;
  if (buffer_.empty()) buffer_.resize(kFirstRead);
  std::size_t filled = 0;
  while (true) {
    const ssize_t got = pread(fd_.get(), buffer_.data() + filled, buffer_.size() - filled,
                              static_cast<off_t>(filled));
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) return errno;
    filled += static_cast<std::size_t>(got);
    const bool leftRoom = filled < buffer_.size();
    if (got == 0 || (leftRoom && form_ == Form::OnePiece)) {
      text = std::string_view(buffer_).substr(0, filled);
      return 0;
    }
    if (!leftRoom) buffer_.resize(2 * buffer_.size());
  }
}

}  // namespace kova::utils
