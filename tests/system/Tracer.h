#pragma once

#include <sys/types.h>

#include <functional>

namespace kova::system_test {

/// Whether this process may trace another of the same user (ptrace(2); Yama may forbid it).
bool mayTrace(pid_t pid);

/// Watches a process and kills it just before its `number`-th system call, from 1, that can change
/// anything outside of it. Calls that only look, wait or handle its own memory are not counted: a
/// kill at one of them leaves what a kill at the next counted one leaves. Its children run
/// untraced.
///
/// @param begin    called once the process is stopped and watched
/// @param finished asked again and again; once it is true the process is let go
/// @param started  asked until it is true: calls before are not counted; none: all count
/// @return whether the process was killed. Throws std::system_error when it cannot be watched.
bool killAtCall(pid_t pid, unsigned number, const std::function<void()>& begin,
                const std::function<bool()>& finished,
                const std::function<bool()>& started = nullptr);

}  // namespace kova::system_test
