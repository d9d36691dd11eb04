#pragma once

#include <csignal>
#include <string>
#include <vector>

namespace kova::utils {

/// Exit status reported for a program that could not be started; `errno` has the reason.
inline constexpr int kNotStarted = 127;

/// Runs a program to its end and captures what it prints. Never uses a shell; the child inherits no
/// descriptor but its three standard ones and starts with default signal handling.
///
/// @param program    absolute path
/// @param arguments  argv[1] onwards
/// @param input      bytes for standard input, which then ends
/// @param out        receives standard output
/// @param err        receives standard error
/// @param timeoutMs  the child is sent SIGTERM after this many milliseconds; 0: never
/// @param graceMs    and SIGKILL this many milliseconds later; 0: SIGKILL at once instead of
/// SIGTERM
/// @param captureKiB at most this many KiB are kept of each stream, the rest is read and dropped
/// @return the exit status; 128 plus the signal's number for a child killed by a signal;
/// kNotStarted
int sysExec(const std::string& program, const std::vector<std::string>& arguments,
            const std::string& input, std::string& out, std::string& err, unsigned timeoutMs,
            unsigned graceMs, unsigned captureKiB);

/// Runs a program to its end with its standard streams on /dev/null; result as sysExec's.
int sysExecArguments(const char* program, const std::vector<std::string>& arguments);

/// sysExecArguments with the arguments spelled out: sysExecSimple("/bin/cfgmtd", "-c").
template <typename... Argument>
int sysExecSimple(const char* program, const Argument&... arguments) {
  return sysExecArguments(program, {std::string(arguments)...});
}

/// Starts a program in the background, in a session of its own, and does not wait for it; its end
/// leaves no zombie.
///
/// @param workingDirectory folder to start in, null: the caller's
/// @param signalMask       signals blocked in the child, null: none
/// @param pid              receives the process id, null: not wanted
/// @param argc             how many `const char*` arguments follow
/// @return false, with `errno` set, when it could not be started
bool runDaemon(const std::string* workingDirectory, const sigset_t* signalMask, int* pid,
               const std::string& program, int argc, ...);

/// Sends `signal` to every process whose program is called `name`: the base name of the first word
/// of its command line, or of its executable (the kernel's own short name is cut at 15 characters,
/// see proc(5)).
/// @return how many processes were signalled
int kill_process_by_name(const std::string& name, int signal);

}  // namespace kova::utils
