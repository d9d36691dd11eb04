#pragma once

#include <cstddef>
#include <string_view>

namespace kova::ipc::wire {

/// Follows the position in a marshalled body.
class Extent {
 public:
  /// A value of this size, aligned to it, as all fixed types of D-Bus are.
  void Fixed(std::size_t size) {
    Align(size);
    size_ += size;
  }
  void Text(std::size_t length) {
    Fixed(4);
    size_ += length + 1;
  }
  void Signature(std::size_t length) { size_ += length + 2; }
  void Bytes(std::size_t length) {
    Fixed(4);
    size_ += length;
  }
  /// Start of an array whose elements have this signature.
  void Array(std::string_view elements) {
    Fixed(4);
    Align(AlignmentOf(elements.front()));
  }
  /// Start of a structure or dictionary entry.
  void Structure() { Align(8); }

  std::size_t size() const { return size_; }

 private:
  void Align(std::size_t boundary) { size_ = (size_ + boundary - 1) / boundary * boundary; }

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

  std::size_t size_ = 0;
};

}  // namespace kova::ipc::wire
