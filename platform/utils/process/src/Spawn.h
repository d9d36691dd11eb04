#pragma once

#include <spawn.h>
#include <sys/types.h>

#include <string>
#include <vector>

#include "kova/utils/Handle.h"

namespace kova::utils {

/// The child's standard descriptors; -1 for /dev/null. All others must be above 2.
struct StandardStreams {
  int in = -1;
  int out = -1;
  int err = -1;
};

/// A prepared posix_spawn(3): the constructor allocates all memory and checks all arguments, so
/// that start() may be called after a fork(2).
class Spawn {
 public:
  /// start() fails with EINVAL if the program or an argument contains a NUL.
  Spawn(const std::string& program, const std::vector<std::string>& arguments,
        const StandardStreams& streams);
  Spawn(const Spawn&) = delete;
  Spawn& operator=(const Spawn&) = delete;

  /// Makes the child lead its own process group, so that a time-out also kills its children.
  void ownGroup();
  /// Makes the child lead its own session.
  void ownSession();
  void workingDirectory(const std::string& folder);
  /// Sets the signals that are blocked in the child; none by default.
  void signalMask(const sigset_t& mask);

  /// Starts the program; 0, or the errno value that prevented it.
  int start(pid_t* pid);

 private:
  void redirect(int stream, int given, int mode);
  void note(int error);

  std::vector<std::string> words_;
  std::vector<char*> argv_;
  posix_spawn_file_actions_t actions_{};
  posix_spawnattr_t attributes_{};
  const Handle<posix_spawn_file_actions_t, posix_spawn_file_actions_destroy> ownActions_{&actions_};
  const Handle<posix_spawnattr_t, posix_spawnattr_destroy> ownAttributes_{&attributes_};
  short flags_ = 0;
  int error_ = 0;
};

/// waitpid(2) that is restarted when interrupted by a signal.
pid_t waitFor(pid_t pid, int* status);

/// The exit status as a shell reports it: 128 plus the signal's number for a process killed by a
/// signal.
int exitStatus(int waitStatus);

}  // namespace kova::utils
