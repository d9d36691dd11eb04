#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "kova/syscfg/SystemCfgManager.h"

namespace kova::syscfg::internal {

/// Splits the text of a store into its lines. Accepts any text; formatConfig() adds a missing final
/// line break.
std::vector<ConfigLine> parseConfig(std::string_view text);

/// The text of a store, with a line break after every line.
std::string formatConfig(const std::vector<ConfigLine>& lines);

/// Whether a setting may have this key, that is, whether parsing "KEY=..." returns the same key.
bool isKey(std::string_view key);

/// Whether a setting may have this value.
bool isValue(std::string_view value);

}  // namespace kova::syscfg::internal
