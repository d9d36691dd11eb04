#include "ImageProbe.h"

#include <cstdio>

#include "kova/utils/Process.h"

namespace kova::ctlserver {
namespace {

constexpr char kProbe[] = "/usr/libexec/kova_imageprobe";
// The probe limits itself to 5 s of processor time; this is for one that waits.
constexpr unsigned kTimeoutMs = 10000;
constexpr unsigned kCaptureKiB = 1;

}  // namespace

ImageFigures probeImage(const std::string& path) {
  std::string out;
  std::string err;
  if (utils::sysExec(kProbe, {path}, "", out, err, kTimeoutMs, 0, kCaptureKiB) != 0) {
    return {};
  }
  ImageFigures figures;
  int empty = 1;
  int end = 0;
  // NOLINTNEXTLINE(cert-err34-c): the whole line is checked by its length, the figures by the
  // caller
  const int read =
      std::sscanf(out.c_str(), "empty=%1d channels=%9d depth=%9d width=%9d height=%9d\n%n", &empty,
                  &figures.channels, &figures.depth, &figures.width, &figures.height, &end);
  if (read != 5 || end != static_cast<int>(out.size())) {
    return {};
  }
  figures.empty = empty != 0;
  return figures;
}

}  // namespace kova::ctlserver
