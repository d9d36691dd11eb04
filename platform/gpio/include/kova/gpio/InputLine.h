#pragma once

#include <memory>
#include <string>

namespace kova::gpio {

/// A GPIO line that is read. It is opened when it is first read.
class InputLine {
 public:
  virtual ~InputLine() = default;

  /// False, with errno, if the line cannot be read.
  virtual bool read(bool& high) = 0;

  /// The next read() opens the line anew.
  virtual void close() = 0;

  /// @param name a value file of sysfs if it begins with "/"; otherwise a line of the GPIO
  /// character devices: "LABEL:OFFSET" by the label of its chip, which no kernel numbers anew, or
  /// its own name. Of several with that label or name it is the first.
  static std::unique_ptr<InputLine> of(const std::string& name);
};

}  // namespace kova::gpio
