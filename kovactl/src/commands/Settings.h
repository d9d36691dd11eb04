#pragma once

#include <string>
#include <vector>

#include "../Text.h"
#include "kova/variant/Variant.h"

namespace kova::ctl {

/// Translates settings as typed ("timelapse", "sound-on-boot" ...) into fields of a
/// ChangeDeviceSettings request.
/// @param error receives, on failure, the unknown setting or the values that it accepts
bool fillSettings(const variant::Variant& given, variant::Variant& request, std::string& error);

/// The payload of an answer to ChangeDeviceSettings or ResetDeviceSettings as a table.
std::vector<Row> settingsRows(const variant::Variant& payload);

/// Parses "on", "yes", "true", "1" and their opposites, ignoring case.
bool parseSwitch(const std::string& text, bool& value);

}  // namespace kova::ctl
