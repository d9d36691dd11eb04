#pragma once

#include <string>
#include <vector>

namespace kova::imageprobe {

/// How a program ended.
struct Ended {
  int status = -1;    ///< exit status; 128 plus the signal's number; -1 when it hung
  std::string out;    ///< what it printed on standard output
  double cpuSeconds;  ///< processor time
  long residentKiB;   ///< the most it ever held
};

/// Runs a program to its end, killed after a minute.
Ended run(const std::vector<std::string>& words);

/// Runs the probe on a file.
Ended probe(const std::string& file);

/// What the probe should print of a file: what the decoder makes of it in a process without any
/// confinement; "" when that process dies.
std::string unconfined(const std::string& file);

/// A line of the probe that tells of a picture's size, and of none.
std::string greyLine(int width, int height);
inline constexpr char kEmptyLine[] = "empty=1 channels=1 depth=0 width=0 height=0\n";

}  // namespace kova::imageprobe
