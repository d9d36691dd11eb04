#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "kova/utils/UniqueFd.h"

/// The GPIO character devices, through version 2 of their user API (Linux 5.10,
/// Documentation/userspace-api/gpio/chardev.rst).
namespace kova::gpio {

struct Chip {
  std::string path;
  std::string label;
  std::uint32_t lines;
};

/// The chips that can be opened, ordered by number.
std::vector<Chip> listChips();

/// The names of all lines of the chip, "" for unnamed ones; empty if they cannot be read.
std::vector<std::string> lineNames(const Chip& chip);

/// Requests the line as an input. On failure returns no descriptor and sets `errno`: EBUSY if the
/// line is in use, EINVAL if the chip has no such line.
utils::UniqueFd requestInput(const Chip& chip, std::uint32_t offset);

/// The level of a line that requestInput() has returned. False, with errno, if it cannot be read.
bool readLevel(const utils::UniqueFd& line, bool& high);

}  // namespace kova::gpio
