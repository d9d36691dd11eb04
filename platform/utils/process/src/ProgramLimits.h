#pragma once

#include <algorithm>
#include <string_view>

namespace kova::utils {

/// Default time limit of a program, in milliseconds.
inline constexpr unsigned kDefaultLimitMs = 60'000;

/// Default time from SIGTERM to SIGKILL, in milliseconds.
inline constexpr unsigned kGraceMs = 1'000;

struct ProgramLimit {
  std::string_view program;
  unsigned limitMs;
};

/// Limits of the board's tools; adapt them for boards whose tools take longer.
inline constexpr ProgramLimit kProgramLimits[] = {
    {"/bin/cfgmtd", 60'000},
    {"/bin/fwupdate.real", 60'000},
    {"/usr/bin/reboot", 60'000},
    {"/usr/bin/fw_setenv", 15'000},
    {"/bin/kova_cmd_apply_camera_name.sh", 15'000},
    {"/bin/fwupdate", 1'800'000},
    {"/bin/support", 600'000},
};

/// Time limit of a program: the lesser of its own limit and the one requested.
/// @param wantedMs the caller's time-out; 0: none
constexpr unsigned timeLimit(std::string_view program, unsigned wantedMs) {
  for (const ProgramLimit& entry : kProgramLimits) {
    if (entry.program == program) {
      return wantedMs == 0 ? entry.limitMs : std::min(wantedMs, entry.limitMs);
    }
  }
  return wantedMs == 0 ? kDefaultLimitMs : wantedMs;
}

/// Time from SIGTERM to SIGKILL: the requested one if a time-out is requested, too.
constexpr unsigned graceTime(unsigned wantedMs, unsigned graceMs) {
  return wantedMs == 0 ? kGraceMs : graceMs;
}

}  // namespace kova::utils
