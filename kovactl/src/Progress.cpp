#include "Progress.h"

#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>

#include "Terminal.h"
#include "Text.h"
#include "kova/utils/Strings.h"

namespace kova::ctl {
namespace {

constexpr std::size_t kLongestBar = 40;
constexpr std::size_t kShortestBar = 5;
// A longer estimate of the time left is not shown.
constexpr double kLongestLeft = 100.0 * 24 * 3600;

constexpr const char* kTransferring = "transferring";

bool isMeasured(const TransferRecord& record) {
  return record.size > 0 && record.transferred <= record.size;
}

bool isSent(const TransferRecord& record) {
  return record.direction == "up" && record.size > 0 && record.transferred == record.size;
}

std::string bytesOf(const TransferRecord& record) {
  const std::string done = humanBytes(static_cast<double>(record.transferred));
  return isMeasured(record) ? done + " of " + humanBytes(static_cast<double>(record.size)) : done;
}

std::string bar(double share, std::size_t columns) {
  const std::size_t width = std::min(columns, kLongestBar);
  const auto full = static_cast<std::size_t>(share * static_cast<double>(width));
  return "[" + std::string(full, '#') + std::string(width - full, '.') + "]  ";
}

}  // namespace

void Rate::add(std::uint64_t bytes, Clock::time_point now) {
  constexpr std::chrono::seconds kWindow(5);
  if (!samples_.empty() && bytes < samples_.back().bytes) {
    samples_.clear();
  }
  samples_.push_back({bytes, now});
  while (samples_.size() > 2 && now - samples_[1].when >= kWindow) {
    samples_.pop_front();
  }
  // Bounds the memory; the camera publishes fewer updates than this within the window.
  constexpr std::size_t kMax = 256;
  if (samples_.size() > kMax) {
    samples_.pop_front();
  }
}

double Rate::perSecond() const {
  if (samples_.size() < 2) {
    return 0;
  }
  const std::chrono::duration<double> passed = samples_.back().when - samples_.front().when;
  return passed.count() > 0
             ? static_cast<double>(samples_.back().bytes - samples_.front().bytes) / passed.count()
             : 0;
}

std::string progressLine(const TransferRecord& record, double bytesPerSecond, std::size_t columns) {
  std::string line = bytesOf(record);
  if (bytesPerSecond > 0) {
    line += "  " + humanBytes(bytesPerSecond) + "/s";
  }
  if (!isMeasured(record)) {
    return std::string(clip(line, columns));
  }
  const double left = static_cast<double>(record.size - record.transferred) / bytesPerSecond;
  if (bytesPerSecond > 0 && left < kLongestLeft) {
    line += "  " + humanDuration(static_cast<std::uint64_t>(std::llround(left))) + " left";
  }
  const double share = static_cast<double>(record.transferred) / static_cast<double>(record.size);
  const std::string percent = utils::format("%3.0f %%  ", 100 * share);
  constexpr std::size_t kFrame = 4;  // brackets and gap of the bar
  const std::size_t taken = percent.size() + line.size() + kFrame;
  return std::string(
      clip(percent + (taken + kShortestBar <= columns ? bar(share, columns - taken) : "") + line,
           columns));
}

Progress::Progress(bool phases) : onTerminal_(errorIsTerminal()), phases_(phases) {}

Progress::~Progress() {
  if (onTerminal_) {
    std::fputs("\r\x1b[K", stderr);
  }
}

void Progress::update(const TransferRecord& record) {
  const bool entered = !record_ || record_->phase != record.phase;
  if (entered && phases_ && !onTerminal_) {
    std::fprintf(stderr, "%s\n", printable(record.phase).c_str());
  }
  record_ = record;
  rate_.add(record.transferred, Clock::now());
}

void Progress::turn() {
  constexpr char kStates[] = {'|', '/', '-', '\\'};
  const auto now = Clock::now();
  if (!onTerminal_ || now - drawn_ < std::chrono::milliseconds(100)) {
    return;
  }
  drawn_ = now;
  const std::size_t columns = terminalSize(STDERR_FILENO).columns - 1;
  const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(now - start_).count();
  std::string line;
  if (record_ && record_->phase == kTransferring && !isSent(*record_)) {
    line = progressLine(*record_, rate_.perSecond(), columns);
  } else {
    const std::string what = !record_           ? "waiting for the camera"
                             : isSent(*record_) ? "sent, waiting for the server's answer"
                                                : printable(record_->phase);
    line = utils::format("%c ", kStates[turns_++ % sizeof kStates]) + what + "  " +
           std::to_string(seconds) + " s";
  }
  std::fprintf(stderr, "\r%s\x1b[K", std::string(clip(line, columns)).c_str());
}

}  // namespace kova::ctl
