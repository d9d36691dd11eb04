#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Platform.h"

/// Names shared by the unit tests of the daemon.
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

/// The commands with which the daemon saves, erases and reboots.
inline constexpr char kSave[] = "/bin/cfgmtd -w -p /etc/ -m";
inline constexpr char kErase[] = "/bin/cfgmtd -c";
inline constexpr char kReboot[] = "/usr/bin/reboot";

/// Makes this command fail and every other succeed.
inline void failRunOf(const std::string& failing) {
  platform().onRun = [failing](const std::string& command) {
    return fakes::ProcessResult{command == failing ? 1 : 0, "", ""};
  };
}

/// Thrown by a sleep to leave an endless wait.
struct LeaveWait {};

/// The description of a camera that has neither Wi-Fi nor a battery.
inline const Map kPlainCamera{
    {"name", "Camera"}, {"sysid", 1}, {"feature_wifi", 0}, {"feature_battery", 0}};

}  // namespace kova::ctlserver
