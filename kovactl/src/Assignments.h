#pragma once

#include <string>
#include <vector>

#include "kova/variant/Variant.h"

namespace kova::ctl {

/// Reads arguments of the forms "key=text" and "key:=JSON" into a map.
///
/// @param map   receives the values; as it was on failure. A key it has already counts as given.
/// @param error receives, on failure, one line that names the argument and what is wrong with it
bool parseAssignments(const std::vector<std::string>& arguments, variant::Variant& map,
                      std::string& error);

/// Reads "on", "yes", "true", "1" and their opposites, in any case.
bool parseSwitch(const std::string& text, bool& value);

}  // namespace kova::ctl
