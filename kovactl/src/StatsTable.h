#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "Table.h"
#include "kova/variant/Variant.h"

namespace kova::ctl {

/// A section of the statistics.
struct StatsSection {
  std::string_view flag;  ///< asks for it in a request, and names it on the command line
  std::string_view key;   ///< holds it in the reply
  std::string_view label;
  std::string (*describe)(const variant::Variant& section);
};

const std::vector<StatsSection>& statsSections();

/// The section of that name, in any case; null when there is none.
const StatsSection* findStatsSection(const std::string& name);

/// The reply to GetSystemStats for people, in human units.
/// @param wanted sections to show even when the camera did not report them; all reported ones are
/// shown
std::vector<Row> statsRows(const variant::Variant& reply,
                           const std::vector<const StatsSection*>& wanted);

}  // namespace kova::ctl
