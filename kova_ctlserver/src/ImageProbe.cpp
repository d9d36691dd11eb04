#include "ImageProbe.h"

#include <array>
#include <cstdio>

#include "kova/utils/Process.h"

namespace kova::ctlserver {
namespace {

constexpr char kProbe[] = "/usr/libexec/kova_imageprobe";
// The probe limits itself to 5 s of processor time; this is for one that waits.
constexpr unsigned kTimeoutMs = 10000;
constexpr unsigned kCaptureKiB = 1;

constexpr char kRead[] = "empty=%1d channels=%9d depth=%9d width=%9d height=%9d";
constexpr char kPrinted[] = "empty=%d channels=%d depth=%d width=%d height=%d\n";

/// Reading accepts more than printing makes, so what was read is printed again to compare.
bool parse(const std::string& line, ImageFigures& figures) {
  int empty = 1;
  ImageFigures read;
  // NOLINTNEXTLINE(cert-err34-c): a number out of range does not compare equal
  if (std::sscanf(line.c_str(), kRead, &empty, &read.channels, &read.depth, &read.width,
                  &read.height) != 5) {
    return false;
  }
  std::array<char, 128> again{};
  std::snprintf(again.data(), again.size(), kPrinted, empty, read.channels, read.depth, read.width,
                read.height);
  if (line != again.data()) {
    return false;
  }
  read.empty = empty != 0;
  figures = read;
  return true;
}

}  // namespace

ImageFigures probeImage(const std::string& path) {
  std::string out;
  std::string err;
  if (utils::sysExec(kProbe, {path}, "", out, err, kTimeoutMs, 0, kCaptureKiB) != 0) {
    return {};
  }
  ImageFigures figures;
  return parse(out, figures) ? figures : ImageFigures{};
}

}  // namespace kova::ctlserver
