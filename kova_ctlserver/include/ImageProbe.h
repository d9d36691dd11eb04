#pragma once

#include <string>

namespace kova::ctlserver {

/// What a picture turned out to be when decoded as 8-bit grey.
struct ImageFigures {
  bool empty = true;  ///< nothing could be decoded
  int channels = 0;
  int depth = 0;  ///< OpenCV depth code; 0: 8 bits unsigned
  int width = 0;  ///< columns
  int height = 0;
};

/// Decodes a picture in "/usr/libexec/kova_imageprobe", a process of its own with next to no
/// privileges, so that hostile bytes never meet a decoder in the daemon. Whatever goes wrong there,
/// a crash, a time-out or nonsense on its output, counts as an empty picture.
ImageFigures probeImage(const std::string& path);

}  // namespace kova::ctlserver
