#pragma once

namespace kova::imageprobe {

/// Confines this process (Confinement.h), decodes the picture at `path` as 8-bit grey, prints its
/// properties in one line, and exits:
///
///   empty=0 channels=1 depth=0 width=640 height=480
///
/// "depth" is OpenCV's code (0: 8 bits unsigned); "empty" is 1 if nothing could be decoded. Exit
/// status 0 with such a line, 1 if the process could not be confined. A picture that exhausts the
/// limits or breaks a decoder ends the process by a signal.
[[noreturn]] void decodeConfined(const char* path) noexcept;

}  // namespace kova::imageprobe
