#pragma once

#include <spawn.h>
#include <sys/types.h>

#include <string>
#include <vector>

namespace kova::utils {

/// Descriptors that a child gets as its standard ones; -1 stands for /dev/null. All must be above
/// 2.
struct StandardStreams {
  int in = -1;
  int out = -1;
  int err = -1;
};

/// A posix_spawn(3) prepared: everything that can fail for want of memory or by a bad argument
/// happens here, so that Start() may follow a fork(2).
class Spawn {
 public:
  /// Fails with EINVAL in Start() when the program or an argument holds a NUL and so could not be
  /// passed whole.
  Spawn(const std::string& program, const std::vector<std::string>& arguments,
        const StandardStreams& streams);
  ~Spawn();
  Spawn(const Spawn&) = delete;
  Spawn& operator=(const Spawn&) = delete;

  /// The child leads a process group of its own, so that a time-out reaches its children too.
  void OwnGroup();
  /// The child leads a session of its own.
  void OwnSession();
  void WorkingDirectory(const std::string& folder);
  /// Signals that the child starts with blocked; none unless called.
  void SignalMask(const sigset_t& mask);

  /// Starts the program; 0, or the errno value that prevented it.
  int Start(pid_t* pid);

 private:
  void Note(int error);

  std::vector<std::string> words_;
  std::vector<char*> argv_;
  posix_spawn_file_actions_t actions_{};
  posix_spawnattr_t attributes_{};
  short flags_ = 0;
  int error_ = 0;
};

/// waitpid(2) that signals do not disturb. `status` as there.
pid_t waitFor(pid_t pid, int* status, int options);

/// The exit status in the shell's manner: 128 plus the signal's number for a death by signal.
int exitStatus(int waitStatus);

}  // namespace kova::utils
