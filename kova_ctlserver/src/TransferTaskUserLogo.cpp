#include "TransferTaskUserLogo.h"

#include "ImageProbe.h"
#include "kova/logger/Logger.h"
#include "kova/utils/Strings.h"

namespace kova::ctlserver {
namespace {

constexpr char kLogIdentity[] = "kova_ctlserver";
constexpr char kLogUnit[] = "TransferTaskUserLogo";
constexpr int kMaxPixels = 1024;

bool isAllowedSize(int pixels) {
  return pixels >= 1 && pixels <= kMaxPixels;
}

std::string objectionTo(const ImageFigures& image) {
  if (!image.answered) {
    return "the picture decoder gave no answer";
  }
  if (image.empty) {
    return "the file is not a picture that can be decoded";
  }
  return utils::format("the picture has %d x %d pixels, but at most %d x %d are allowed",
                       image.width, image.height, kMaxPixels, kMaxPixels);
}

}  // namespace

const TransferTaskInstall::Kind TransferTaskUserLogo::kLogo = {
    .unit = kLogUnit,
    .subject = "Logo",
    .name = "user_logo",
    .download = "/tmp/user_logo",
    .checksum = "/tmp/user_logo.md5",
    .installed = "/etc/persistent/user_logo",
    .installedChecksum = "/etc/persistent/user_logo.md5",
    .maxSz = 131072,
};

TransferTaskUserLogo::TransferTaskUserLogo(Persistence& persistence)
    : TransferTaskInstall(kLogo, persistence) {}

bool TransferTaskUserLogo::checkNoTransferNeeded(const std::string& hash) {
  return isInstalled(kLogo, hash);
}

bool TransferTaskUserLogo::validate(std::string& reason) {  // kept: 15
  const ImageFigures image = probeImage(path());
  if (!image.empty && image.channels == 1 && image.depth == 0 && isAllowedSize(image.height) &&
      isAllowedSize(image.width)) {
    return true;
  }
  reason = objectionTo(image);
  KOVA_LOG_IN("onSuccess", LOG_WARNING, 0,
              "Logo validation failed, uri=%s, empty=%d, nCh=%d, depth=%d, width=%d, height=%d",
              uri().c_str(), image.empty ? 1 : 0, image.channels, image.depth, image.width,
              image.height);
  return false;
}

}  // namespace kova::ctlserver
