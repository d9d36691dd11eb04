#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "../Text.h"
#include "kova/variant/Variant.h"

namespace kova::ctl {

/// A section of the statistics.
struct StatsSection {
  std::string_view flag;  ///< in the request and on the command line
  std::string_view key;   ///< in the answer
  std::string_view label;
  std::string (*describe)(const variant::Variant& section);
};

const std::vector<StatsSection>& statsSections();

/// Finds a section by its flag, ignoring case; null if there is none.
const StatsSection* findStatsSection(const std::string& name);

/// Whether the section "wifi" shows a link. Without one the camera reports a level of 0 or -100 dBm
/// and a quality derived from it.
bool hasLink(const variant::Variant& wifi);

/// The payload of an answer to GetSystemStats as a table in human-readable units.
/// @param wanted sections to show as "not reported" when they are missing
std::vector<Row> statsRows(const variant::Variant& reply,
                           const std::vector<const StatsSection*>& wanted);

}  // namespace kova::ctl
