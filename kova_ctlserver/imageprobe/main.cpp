#include <cstdio>
#include <exception>
#include <opencv2/core.hpp>
#include <opencv2/core/utils/logger.hpp>
#include <opencv2/imgcodecs.hpp>

#include "Confinement.h"

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

/// Decodes a picture as 8-bit grey and prints its properties in one line:
///
///   empty=0 channels=1 depth=0 width=640 height=480
///
/// "depth" is OpenCV's code (0: 8 bits unsigned); "empty" is 1 if nothing could be decoded. Exit
/// status 0 with such a line, 1 if the process could not be confined, 2 for wrong usage. A picture
/// that exhausts the limits or breaks a decoder ends the process by a signal.
int main(int argc, char** argv) {
  if (argc != 2) {
    std::fputs("usage: kova_imageprobe FILE\n", stderr);
    return 2;
  }
  cv::setNumThreads(1);
  cv::utils::logging::setLogLevel(cv::utils::logging::LOG_LEVEL_SILENT);
  if (!kova::imageprobe::confine(argv[1])) {
    std::perror("kova_imageprobe: cannot give up its privileges");
    return 1;
  }
  const cv::Mat image = decode(argv[1]);
  std::printf("empty=%d channels=%d depth=%d width=%d height=%d\n", image.empty() ? 1 : 0,
              image.channels(), image.depth(), image.cols, image.rows);
  // Skip the tear-down of the libraries: the less code runs, the better.
  std::fflush(stdout);
  std::_Exit(0);
}
