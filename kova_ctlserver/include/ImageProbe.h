#pragma once

#include <string>

namespace kova::ctlserver {

/// Properties of a picture decoded as 8-bit grey. The defaults describe an empty picture.
struct ImageFigures {
  bool empty = true;  ///< nothing could be decoded
  int channels = 1;
  int depth = 0;  ///< OpenCV depth code; 0: 8 bits unsigned
  int width = 0;  ///< columns
  int height = 0;
  bool answered = false;  ///< the probe printed a valid line
};

/// Decodes a picture in "/usr/libexec/kova_imageprobe", an unprivileged process, so that hostile
/// bytes never reach a decoder in the daemon. A crash, a time-out or unexpected output is logged
/// and counts as an empty picture.
ImageFigures probeImage(const std::string& path);

}  // namespace kova::ctlserver
