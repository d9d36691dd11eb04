#include "kova/gpio/InputLine.h"

#include "ChipLine.h"
#include "ValueFile.h"

namespace kova::gpio {

std::unique_ptr<InputLine> InputLine::of(const std::string& name) {
  if (name.starts_with('/')) {
    return std::make_unique<ValueFile>(name);
  }
  return std::make_unique<ChipLine>(name);
}

}  // namespace kova::gpio
