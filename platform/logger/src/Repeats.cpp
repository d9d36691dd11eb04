#include "Repeats.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <utility>

namespace kova::logger {
namespace {

constexpr std::uint64_t kPeriodMs = 1000;
constexpr std::size_t kLongestRound = 4;
// Longer lines are not compared, which bounds the memory.
constexpr std::size_t kLongestLine = 1024;

std::string timesText(int times) {
  std::array<char, 40> text;
  std::snprintf(text.data(), text.size(), "... repeated %d times", times);
  return text.data();
}

}  // namespace

std::vector<Line> Repeats::pass(const Line& line, std::uint64_t now) {
  const bool recent = now - writtenAt_ < kPeriodMs;
  const bool repeats = isRepetition(line) && (recent || !counted_.empty());
  const bool counts = repeats && left_ == 0;
  left_ = repeats ? std::max(left_ - 1, 0) : freely_;
  remember(line);
  // Counts come out at most once per second, or ahead of the next line that is written.
  if (counts) {
    count(line);
    if (recent) {
      return {};
    }
  }
  writtenAt_ = now;
  std::vector<Line> lines = takeCounted();
  if (!counts) {
    lines.push_back(line);
  }
  return lines;
}

std::vector<Line> Repeats::takeDue(std::uint64_t now) {
  if (counted_.empty() || now - writtenAt_ < kPeriodMs) {
    return {};
  }
  writtenAt_ = now;
  return takeCounted();
}

std::vector<Line> Repeats::takeCounted() {
  std::vector<Line> lines;
  for (auto& [line, times] : std::exchange(counted_, {})) {
    lines.push_back(times == 1 ? line : Line{line.level, line.text + " " + timesText(times)});
  }
  return lines;
}

bool Repeats::isRepetition(const Line& line) const {
  const auto roundRepeats = [&](std::size_t length) {
    const auto middle = latest_.begin() + static_cast<std::ptrdiff_t>(length);
    return latest_[length - 1] == line && std::equal(latest_.begin(), middle, middle);
  };
  if (!latest_.empty() && latest_.front() == line) {
    return true;
  }
  for (std::size_t length = 2; latest_.size() >= 2 * length; ++length) {
    if (roundRepeats(length)) {
      return true;
    }
  }
  return false;
}

void Repeats::remember(const Line& line) {
  if (line.text.size() > kLongestLine) {
    latest_.clear();
    return;
  }
  latest_.push_front(line);
  if (latest_.size() > 2 * kLongestRound) {
    latest_.pop_back();
  }
}

void Repeats::count(const Line& line) {
  const auto known = std::find_if(counted_.begin(), counted_.end(),
                                  [&](const Counted& candidate) { return candidate.line == line; });
  if (known == counted_.end()) {
    counted_.push_back({line, 1});
  } else {
    ++known->times;
  }
}

}  // namespace kova::logger
