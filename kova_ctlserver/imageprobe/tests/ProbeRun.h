#pragma once

#include <string>
#include <vector>

namespace kova::imageprobe {

/// How a program ended.
struct Ended {
  int status = -1;    ///< exit status; 128 plus the signal's number; -1 if it hung
  std::string out;    ///< standard output
  double cpuSeconds;  ///< processor time
  long residentKiB;   ///< peak
};

/// Runs a program to its end; kills it after a minute.
Ended run(const std::vector<std::string>& words);

/// Runs the probe on a file.
Ended probe(const std::string& file);

/// Does what the probe does in a fork of this process: a tenth of the time, because the libraries
/// are loaded.
Ended probeInFork(const std::string& file);

/// The expected output for a file: that of the decoder in an unconfined process; "" if that process
/// dies.
std::string unconfined(const std::string& file);

/// Output of the probe for a grey picture of this size, and for no picture.
std::string greyLine(int width, int height);
inline constexpr char kEmptyLine[] = "empty=1 channels=1 depth=0 width=0 height=0\n";

}  // namespace kova::imageprobe
