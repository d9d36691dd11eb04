#pragma once

#include <cstdint>
#include <deque>
#include <string>
#include <vector>

namespace kova::logger {

struct Line {
  int level;
  std::string text;

  bool operator==(const Line&) const = default;
};

/// Keeps the log readable while something fails repeatedly.
///
/// A line that repeats the previous one, or belongs to a cycle of up to four lines seen twice, is
/// counted rather than written if something was written within the last second. Counts are written
/// once a second, and before any other line. The first few repetitions in a row are written anyway:
/// two lines are not a flood.
class Repeats {
 public:
  /// @param freely number of repetitions in a row that are written
  explicit Repeats(int freely = 16) : freely_(freely), left_(freely) {}

  /// @param now current time in milliseconds, monotonic
  /// @return the lines to write now
  std::vector<Line> pass(const Line& line, std::uint64_t now);

  /// The counts that have not been written yet, once the last line was written a second ago.
  std::vector<Line> takeDue(std::uint64_t now);

  /// The counts that have not been written yet.
  std::vector<Line> takeCounted();

 private:
  struct Counted {
    Line line;
    int times;
  };

  bool isRepetition(const Line& line) const;
  void remember(const Line& line);
  void count(const Line& line);

  std::deque<Line> latest_;  // written or counted; newest first
  std::vector<Counted> counted_;
  std::uint64_t writtenAt_ = 0;
  int freely_;
  int left_;  // repetitions that will still be written
};

}  // namespace kova::logger
