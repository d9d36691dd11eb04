#pragma once

#include <sys/types.h>

#include <functional>

namespace kova::system_test {

/// Whether this process may trace another of the same user (ptrace(2); Yama may forbid it).
bool mayTrace(pid_t pid);

/// Traces a process and kills it just before its `number`-th system call, from 1, that can change
/// anything outside of it. Calls that only read, wait or manage its own memory do not count: a kill
/// at one of them leaves the same state as a kill at the next counted one. Children are not traced.
///
/// @param begin    called once the process is stopped and traced
/// @param finished polled; once it is true the process is detached
/// @param started  polled until it is true; earlier calls do not count. Without it all calls count
/// @return whether the process was killed. Throws std::system_error if it cannot be traced.
bool killAtCall(pid_t pid, unsigned number, const std::function<void()>& begin,
                const std::function<bool()>& finished,
                const std::function<bool()>& started = nullptr);

}  // namespace kova::system_test
