#pragma once

namespace kova::utils {

/// Installs a handler for fatal signals (SEGV, BUS, ILL, FPE, ABRT, SYS). It writes the signal's
/// number, the program counter, the program's build-id and a backtrace to the system log and to
/// FOLDER/kova_crash.PID before the default action ends the process.
/// @param folder folder of the report; null: /var/log
/// @return false if a handler could not be installed
bool InstallCrashDumpHandler(const char* folder);

/// Aborts a process that cannot safely continue, with a report by the crash handler.
[[noreturn]] void forceCrash();

}  // namespace kova::utils
