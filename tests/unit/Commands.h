#pragma once

#include "UnitTest.h"
namespace kova::ctlserver {

/// The commands by which the daemon saves, erases and reboots.
inline constexpr char kSave[] = "/bin/cfgmtd -w -p /etc/ -m";
inline constexpr char kErase[] = "/bin/cfgmtd -c";
inline constexpr char kReboot[] = "/usr/bin/reboot";

/// Thrown by a sleep that would not end.
struct LeaveWait {};

}  // namespace kova::ctlserver
