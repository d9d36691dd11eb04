#pragma once

#include <memory>
#include <string>

namespace kova::gpio {

/// A GPIO input line, opened on the first read.
class InputLine {
 public:
  virtual ~InputLine() = default;

  /// False, with errno, if the line cannot be read.
  virtual bool read(bool& high) = 0;

  /// Closes the line; the next read() reopens it.
  virtual void close() = 0;

  /// @param name a value file of sysfs if it begins with "/"; otherwise a line of the GPIO
  /// character devices, either as "LABEL:OFFSET" with the label of its chip, which is stable where
  /// chip numbers are not, or by its own name. The first match counts.
  static std::unique_ptr<InputLine> of(const std::string& name);
};

}  // namespace kova::gpio
