#include <cstdio>
#include <exception>
#include <opencv2/core.hpp>
#include <opencv2/core/utils/logger.hpp>
#include <opencv2/imgcodecs.hpp>

#include "Confinement.h"

namespace {

/// Whatever a decoder throws means that there is no picture.
cv::Mat decode(const char* path) {
  try {
    return cv::imread(path, cv::IMREAD_GRAYSCALE);
  } catch (const std::exception&) {
    return {};
  }
}

}  // namespace

/// Decodes a picture as 8-bit grey and prints what it is, as one line:
///
///   empty=0 channels=1 depth=0 width=640 height=480
///
/// "depth" is OpenCV's code (0: 8 bits unsigned); "empty" is 1 when nothing could be decoded. Exit
/// status 0 with such a line, 1 when the process could not be confined, 2 for wrong usage; a
/// picture that exhausts the limits or breaks a decoder ends the process by a signal.
int main(int argc, char** argv) {
  if (argc != 2) {
    std::fputs("usage: kova_imageprobe FILE\n", stderr);
    return 2;
  }
  cv::setNumThreads(1);
  cv::utils::logging::setLogLevel(cv::utils::logging::LOG_LEVEL_SILENT);
  if (!kova::imageprobe::confine()) {
    std::perror("kova_imageprobe: cannot give up its privileges");
    return 1;
  }
  const cv::Mat image = decode(argv[1]);
  const bool empty = image.empty();
  std::printf("empty=%d channels=%d depth=%d width=%d height=%d\n", empty ? 1 : 0,
              empty ? 0 : image.channels(), empty ? 0 : image.depth(), image.cols, image.rows);
  // Nothing of the libraries' tear-down is needed, and the less runs the better.
  std::fflush(stdout);
  std::_Exit(0);
}
