#pragma once

#include <string>
#include <vector>

#include "Exit.h"
#include "Options.h"
#include "Table.h"
#include "kova/messages/BaseMessage.h"

namespace kova::ctl {

/// Turns settings as typed ("timelapse", "sound-on-boot" ...) into the fields of a
/// ChangeDeviceSettings.
/// @param error receives, on failure, which setting is unknown or what its value must be
bool fillSettings(const variant::Variant& given, variant::Variant& request, std::string& error);

/// A reply to ChangeDeviceSettings or ResetDeviceSettings for people.
std::vector<Row> settingsRows(const variant::Variant& payload);

/// Sends such a request and prints the settings that come back, also those of a request that failed
/// half-way.
Exit askSettings(const Options& options, ipc::messages::BaseRequestMessage& request);

}  // namespace kova::ctl
