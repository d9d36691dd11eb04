#include "LineFilter.h"

#include "Text.h"

namespace kova::ctl {
namespace {

constexpr std::size_t kLongestLine = std::size_t{64} * 1024;

}  // namespace

void LineFilter::take(std::string_view text) {
  while (!text.empty()) {
    const std::size_t end = text.find('\n');
    rest_ += text.substr(0, end);
    if (end != text.npos || rest_.size() >= kLongestLine) {
      pass(rest_, end != text.npos);
      rest_.clear();
    }
    text.remove_prefix(end != text.npos ? end + 1 : text.size());
  }
}

void LineFilter::end() {
  if (!rest_.empty()) {
    pass(rest_, true);
    rest_.clear();
  }
}

void LineFilter::pass(std::string_view line, bool whole) {
  // ssh ends its own lines with "\r\n", for terminals in raw mode.
  if (whole && line.ends_with('\r')) {
    line.remove_suffix(1);
  }
  const std::string shown = printable(line) + (whole ? "\n" : "");
  good_ = good_ && std::fwrite(shown.data(), 1, shown.size(), to_) == shown.size() &&
          std::fflush(to_) == 0;
}

}  // namespace kova::ctl
