#pragma once

#include <cstddef>
#include <string_view>

namespace kova::ipc::wire {

/// Computes the size of a marshalled D-Bus body, including padding, while its values are read or
/// written in order.
class MarshalledSize {
 public:
  /// A value of a fixed type; D-Bus aligns these to their size.
  void addFixed(std::size_t size) {
    align(size);
    bytes_ += size;
  }
  void addText(std::size_t length) {
    addFixed(4);
    bytes_ += length + 1;
  }
  void addSignature(std::size_t length) { bytes_ += length + 2; }
  void addBytes(std::size_t length) {
    addFixed(4);
    bytes_ += length;
  }
  /// The start of an array of elements with this signature.
  void addArray(std::string_view elements) {
    addFixed(4);  // the length; its alignment suffices for all elements but these
    if (std::string_view("xtd({").find(elements.front()) != std::string_view::npos) {
      align(8);
    }
  }
  /// The start of a structure or dictionary entry.
  void addStructure() { align(8); }

  std::size_t bytes() const { return bytes_; }

 private:
  void align(std::size_t boundary) { bytes_ = (bytes_ + boundary - 1) / boundary * boundary; }

  std::size_t bytes_ = 0;
};

}  // namespace kova::ipc::wire
