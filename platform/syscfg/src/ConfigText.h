#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "kova/syscfg/SystemCfgManager.h"

namespace kova::syscfg::internal {

/// Splits the text of a store into its lines. Any text is one; a missing line break at its end is
/// made good when it is formatted.
std::vector<ConfigLine> parseConfig(std::string_view text);

/// The text of a store: every line, each ended by a line break.
std::string formatConfig(const std::vector<ConfigLine>& lines);

/// Whether a setting may have this key: parsing the line "KEY=..." gives it back.
bool isKey(std::string_view key);

/// Whether a setting may have this value.
bool isValue(std::string_view value);

}  // namespace kova::syscfg::internal
