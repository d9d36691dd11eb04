#include "ImageProbe.h"

#include <array>
#include <cstdio>

#include "kova/logger/Logger.h"
#include "kova/utils/Process.h"

namespace kova::ctlserver {
namespace {

constexpr char kLogIdentity[] = "kova_ctlserver";
constexpr char kLogUnit[] = "ImageProbe";
constexpr char kProbe[] = "/usr/libexec/kova_imageprobe";
// Once its libraries are loaded, the probe limits its own processor time to 1 s. Loading them from
// slow flash takes seconds; this bound catches a probe that blocks.
constexpr unsigned kProbeTimeoutMs = 10'000;
constexpr unsigned kCaptureKiB = 1;

constexpr char kRead[] = "empty=%1d channels=%9d depth=%9d width=%9d height=%9d";
constexpr char kPrinted[] = "empty=%d channels=%d depth=%d width=%d height=%d\n";

/// sscanf accepts more than the probe prints, so the result is printed again and compared.
bool parse(const std::string& line, ImageFigures& figures) {
  int empty = 1;
  ImageFigures read;
  // NOLINTNEXTLINE(cert-err34-c): an out-of-range number fails the comparison below
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
  read.answered = true;
  figures = read;
  return true;
}

}  // namespace

ImageFigures probeImage(const std::string& path) {
  std::string out;
  std::string err;
  const int status = utils::sysExec(kProbe, {path}, "", out, err, kProbeTimeoutMs,
                                    /*graceMs=*/0, kCaptureKiB);
  ImageFigures figures;
  if (status != 0 || !parse(out, figures)) {
    KOVA_LOG(LOG_WARNING, 0, "Picture decoder gave no answer, path=%s, status=%d", path.c_str(),
             status);
    return {};
  }
  return figures;
}

}  // namespace kova::ctlserver
