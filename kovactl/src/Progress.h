#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <optional>
#include <string>

#include "TransferRecord.h"

namespace kova::ctl {

/// The transfer rate, averaged over the last seconds.
class Rate {
 public:
  using Clock = std::chrono::steady_clock;

  void add(std::uint64_t bytes, Clock::time_point now);
  /// Bytes per second; 0 until it is known.
  double perSecond() const;

 private:
  struct Sample {
    std::uint64_t bytes;
    Clock::time_point when;
  };
  std::deque<Sample> samples_;
};

/// A line with the progress of a transfer, no wider than `columns`: a bar if the size is known,
/// bytes, rate and time left.
std::string progressLine(const TransferRecord& record, double bytesPerSecond, std::size_t columns);

/// Shows the progress of a transfer on standard error: on a terminal one line that is redrawn, and
/// erased on destruction, elsewhere one line per phase.
class Progress {
 public:
  /// @param phases whether to print phases if there is no terminal
  explicit Progress(bool phases);
  ~Progress();
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

  /// Takes the state of a transfer that has not ended.
  void update(const TransferRecord& record);
  /// Draws the line on a terminal, at most ten times a second.
  void turn();

 private:
  using Clock = Rate::Clock;

  bool onTerminal_;
  bool phases_;
  Clock::time_point start_ = Clock::now();
  Clock::time_point drawn_{};
  unsigned turns_ = 0;
  std::optional<TransferRecord> record_;
  Rate rate_;
};

}  // namespace kova::ctl
