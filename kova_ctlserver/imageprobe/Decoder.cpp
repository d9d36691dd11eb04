#include "Decoder.h"

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <opencv2/core.hpp>
#include <opencv2/core/utils/logger.hpp>
#include <opencv2/imgcodecs.hpp>

#include "Confinement.h"

namespace kova::imageprobe {
namespace {

/// A decoder that throws yields an empty picture.
cv::Mat decode(const char* path) {
  try {
    return cv::imread(path, cv::IMREAD_GRAYSCALE);
  } catch (const std::exception&) {
    return {};
  }
}

}  // namespace

void decodeConfined(const char* path) noexcept {
  cv::setNumThreads(1);
  cv::utils::logging::setLogLevel(cv::utils::logging::LOG_LEVEL_SILENT);
  if (!confine(path)) {
    std::perror("kova_imageprobe: cannot give up its privileges");
    std::_Exit(1);
  }
  const cv::Mat image = decode(path);
  std::printf("empty=%d channels=%d depth=%d width=%d height=%d\n", image.empty() ? 1 : 0,
              image.channels(), image.depth(), image.cols, image.rows);
  // Skip the tear-down of the libraries: the less code runs, the better.
  std::fflush(stdout);
  std::_Exit(0);
}

}  // namespace kova::imageprobe
