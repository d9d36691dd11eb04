#pragma once

#include <csignal>
#include <string>
#include <vector>

namespace kova::utils {

/// Exit status of a program that could not be started; `errno` is set.
inline constexpr int kNotStarted = 127;

/// Runs a program, waits for it and captures its output. Never uses a shell; the child inherits
/// only its three standard descriptors, starts with default signal handling and leads its own
/// process group.
///
/// Every program has a time limit. ProgramLimits.h lists those of the board's tools (60 s for a
/// save, a check or a reboot, 15 s for a variable or the name, 30 minutes for flashing, 10 minutes
/// for a support archive); any other program has 60 s unless `timeoutMs` is given. A program that
/// exceeds its limit is killed with its process group, which is logged, and `errno` is set to
/// ETIMEDOUT. Otherwise `errno` is preserved.
///
/// @param program    absolute path
/// @param arguments  argv[1] onwards
/// @param input      bytes for standard input, followed by end of file
/// @param out        receives standard output
/// @param err        receives standard error
/// @param timeoutMs  milliseconds until the child is sent SIGTERM, capped at the program's limit;
/// 0: that limit
/// @param graceMs    milliseconds from SIGTERM to SIGKILL; 0: send SIGKILL instead of SIGTERM.
/// Always 1 s without `timeoutMs`
/// @param captureKiB maximum number of KiB kept of each stream; the rest is read and dropped
/// @return the exit status; 128 plus the signal's number for a child killed by a signal;
/// kNotStarted
int sysExec(const std::string& program, const std::vector<std::string>& arguments,
            const std::string& input, std::string& out, std::string& err, unsigned timeoutMs,
            unsigned graceMs, unsigned captureKiB);

/// Runs a program and waits for it, with its standard streams on /dev/null. Limit and result are
/// those of sysExec().
int sysExecArguments(const char* program, const std::vector<std::string>& arguments);

/// sysExecArguments with the arguments spelled out: sysExecSimple("/bin/cfgmtd", "-c").
template <typename... Argument>
int sysExecSimple(const char* program, const Argument&... arguments) {
  return sysExecArguments(program, {std::string(arguments)...});
}

/// Starts a program in the background, in its own session, without leaving a zombie when it ends. A
/// small supervisor process kills it, with all its descendants, on endDaemon(), after its time
/// limit (see sysExec), and when this process ends for any reason.
///
/// @param workingDirectory folder to start in; null: the caller's
/// @param signalMask       signals blocked in the child; null: none
/// @param pid              receives the process id; may be null
/// @param argc             number of `const char*` arguments that follow
/// @return false, with `errno` set, if it could not be started
bool runDaemon(const std::string* workingDirectory, const sigset_t* signalMask, int* pid,
               const std::string& program, int argc, ...);

/// Kills the program that runDaemon() started under this name, with all its descendants, and waits
/// up to 2 s until they are gone. Logs this, or that the program had already exceeded its time
/// limit. Does nothing if no such program runs.
void endDaemon(const std::string& program);

/// Sends `signal` to every process whose program is called `name`: the base name of its argv[0] or
/// of its executable. Does not use the kernel's name of the process, which is truncated to 15
/// characters, see proc(5).
/// @return number of processes that were signalled
int kill_process_by_name(const std::string& name, int signal);

}  // namespace kova::utils
