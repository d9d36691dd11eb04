#pragma once

#include <string>
#include <utility>

#include "kova/gpio/InputLine.h"
#include "kova/utils/UniqueFd.h"

namespace kova::gpio {

/// A line of a GPIO character device, given by chip label and offset or by its own name. Looked up
/// again on each open.
class ChipLine : public InputLine {
 public:
  explicit ChipLine(std::string name) : name_(std::move(name)) {}
  bool read(bool& high) override;
  void close() override { line_.reset(); }

 private:
  utils::UniqueFd openLine() const;

  std::string name_;
  utils::UniqueFd line_;
};

}  // namespace kova::gpio
