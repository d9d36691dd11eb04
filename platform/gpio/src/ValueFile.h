#pragma once

#include <string>
#include <utility>

#include "kova/gpio/InputLine.h"
#include "kova/utils/UniqueFd.h"

namespace kova::gpio {

/// A line's value file in sysfs: "0" or "1" and a line break
/// (Documentation/admin-guide/gpio/sysfs.rst).
class ValueFile : public InputLine {
 public:
  explicit ValueFile(std::string path) : path_(std::move(path)) {}
  bool read(bool& high) override;
  void close() override { file_.reset(); }

 private:
  std::string path_;
  utils::UniqueFd file_;
};

}  // namespace kova::gpio
