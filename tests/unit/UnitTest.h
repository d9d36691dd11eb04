#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Platform.h"

/// What every unit test of the daemon names.
namespace kova::ctlserver {

using fakes::LogLine;
using fakes::platform;
using testing::Contains;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;
using testing::StartsWith;
using variant::Variant;
using Map = Variant::Map;

/// The commands by which the daemon saves, erases and reboots.
inline constexpr char kSave[] = "/bin/cfgmtd -w -p /etc/ -m";
inline constexpr char kErase[] = "/bin/cfgmtd -c";
inline constexpr char kReboot[] = "/usr/bin/reboot";

/// From now on this command fails and every other succeeds.
inline void failRunOf(const std::string& failing) {
  platform().onRun = [failing](const std::string& command) {
    return fakes::ProcessResult{command == failing ? 1 : 0, "", ""};
  };
}

/// Thrown by a sleep that would not end.
struct LeaveWait {};

/// The description of a camera that has neither Wi-Fi nor a battery.
inline const Map kPlainCamera{
    {"name", "Camera"}, {"sysid", 1}, {"feature_wifi", 0}, {"feature_battery", 0}};

}  // namespace kova::ctlserver
