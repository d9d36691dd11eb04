#pragma once

namespace kova::utils {

/// From now on a fatal signal (SEGV, BUS, ILL, FPE, ABRT, SYS) leaves its number, the program
/// counter and a backtrace in the system log and in FOLDER/kova_crash.PID before the default action
/// ends the process.
/// @param folder where the report goes; null: /var/log
/// @return false when a handler could not be installed
bool InstallCrashDumpHandler(const char* folder);

/// Ends the process on purpose, through the crash handler, because going on would be wrong.
[[noreturn]] void forceCrash();

}  // namespace kova::utils
