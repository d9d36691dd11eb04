#include "ValueFile.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <string_view>

namespace kova::gpio {

bool ValueFile::read(bool& high) {
  if (!file_) {
    file_ = utils::UniqueFd(open(path_.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    if (!file_) {
      return false;
    }
  }
  std::array<char, sizeof "0\n"> buffer;  // one spare byte, to detect longer content
  const ssize_t got = pread(file_.get(), buffer.data(), buffer.size(), 0);
  if (got < 0) {
    return false;
  }
  std::string_view text(buffer.data(), static_cast<std::size_t>(got));
  if (text.ends_with('\n')) {
    text.remove_suffix(1);
  }
  if (text != "0" && text != "1") {
    errno = EINVAL;
    return false;
  }
  high = text == "1";
  return true;
}

}  // namespace kova::gpio
