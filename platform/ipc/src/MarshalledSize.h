#pragma once

#include <cstddef>
#include <string_view>

namespace kova::ipc::wire {

/// Computes the size of a marshalled D-Bus body, including padding, while its values are read or
/// written in order.
class MarshalledSize {
 public:
  /// A value of a fixed type; D-Bus aligns these to their size.
  void Fixed(std::size_t size) {
    Align(size);
    bytes_ += size;
  }
  void Text(std::size_t length) {
    Fixed(4);
    bytes_ += length + 1;
  }
  void Signature(std::size_t length) { bytes_ += length + 2; }
  void Bytes(std::size_t length) {
    Fixed(4);
    bytes_ += length;
  }
  /// The start of an array of elements with this signature.
  void Array(std::string_view elements) {
    Fixed(4);
    Align(AlignmentOf(elements.front()));
  }
  /// The start of a structure or dictionary entry.
  void Structure() { Align(8); }

  std::size_t bytes() const { return bytes_; }

 private:
  void Align(std::size_t boundary) { bytes_ = (bytes_ + boundary - 1) / boundary * boundary; }

  static std::size_t AlignmentOf(char type) {
    switch (type) {
      case 'y':
      case 'g':
      case 'v':
        return 1;
      case 'n':
      case 'q':
        return 2;
      case 'x':
      case 't':
      case 'd':
      case '(':
      case '{':
        return 8;
      default:
        return 4;
    }
  }

  std::size_t bytes_ = 0;
};

}  // namespace kova::ipc::wire
