#include "ChipLine.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdint>
#include <string_view>

#include "Chips.h"

namespace kova::gpio {
namespace {

struct Place {
  std::string_view label;
  std::uint32_t offset;
};

// Parses "LABEL:OFFSET"; a label may contain colons.
bool parsePlace(std::string_view text, Place& place) {
  const std::size_t colon = text.rfind(':');
  if (colon == std::string_view::npos || colon == 0) {
    return false;
  }
  const char* begin = text.data() + colon + 1;
  const char* end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(begin, end, place.offset);
  place.label = text.substr(0, colon);
  return error == std::errc() && stop == end;
}

}  // namespace

bool ChipLine::read(bool& high) {
  if (!line_) {
    line_ = openLine();
    if (!line_) {
      return false;
    }
  }
  return readLevel(line_, high);
}

utils::UniqueFd ChipLine::openLine() const {
  Place place{};
  const bool isPlace = parsePlace(name_, place);
  for (const Chip& chip : listChips()) {
    if (isPlace && chip.label == place.label) {
      return requestInput(chip, place.offset);
    }
    if (!isPlace) {
      const std::vector<std::string> names = lineNames(chip);
      const auto found = std::find(names.begin(), names.end(), name_);
      if (found != names.end()) {
        return requestInput(chip, static_cast<std::uint32_t>(found - names.begin()));
      }
    }
  }
  errno = ENODEV;
  return {};
}

}  // namespace kova::gpio
