#include "Spawn.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>

#include "Descriptors.h"

namespace kova::utils {
namespace {

bool holdsNul(const std::string& text) {
  return text.find('\0') != std::string::npos;
}

}  // namespace

Spawn::Spawn(const std::string& program, const std::vector<std::string>& arguments,
             const StandardStreams& streams) {
  words_.reserve(arguments.size() + 1);
  words_.push_back(program);
  words_.insert(words_.end(), arguments.begin(), arguments.end());
  for (std::string& word : words_) {
    if (holdsNul(word)) note(EINVAL);
    argv_.push_back(word.data());
  }
  argv_.push_back(nullptr);

  note(posix_spawn_file_actions_init(&actions_));
  note(posix_spawnattr_init(&attributes_));
  const int given[] = {streams.in, streams.out, streams.err};
  for (int target = 0; target < 3; ++target) {
    if (given[target] >= 0) {
      note(posix_spawn_file_actions_adddup2(&actions_, given[target], target));
    } else {
      const int mode = target == STDIN_FILENO ? O_RDONLY : O_WRONLY;
      note(posix_spawn_file_actions_addopen(&actions_, target, "/dev/null", mode, 0));
    }
  }
  note(inheritNoneFrom(&actions_, STDERR_FILENO + 1));

  sigset_t signals;
  sigfillset(&signals);
  note(posix_spawnattr_setsigdefault(&attributes_, &signals));
  sigemptyset(&signals);
  signalMask(signals);
  flags_ = POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK;
}

Spawn::~Spawn() {
  posix_spawn_file_actions_destroy(&actions_);
  posix_spawnattr_destroy(&attributes_);
}

void Spawn::ownGroup() {
  note(posix_spawnattr_setpgroup(&attributes_, 0));
  flags_ |= POSIX_SPAWN_SETPGROUP;
}

void Spawn::ownSession() {
  flags_ |= POSIX_SPAWN_SETSID;
}

void Spawn::workingDirectory(const std::string& folder) {
  if (holdsNul(folder)) note(EINVAL);
  note(startInFolder(&actions_, folder.c_str()));
}

void Spawn::signalMask(const sigset_t& mask) {
  note(posix_spawnattr_setsigmask(&attributes_, &mask));
}

int Spawn::start(pid_t* pid) {
  note(posix_spawnattr_setflags(&attributes_, flags_));
  if (error_ != 0) return error_;
  return posix_spawn(pid, argv_.front(), &actions_, &attributes_, argv_.data(), environ);
}

void Spawn::note(int error) {
  if (error_ == 0) error_ = error;
}

pid_t waitFor(pid_t pid, int* status, int options) {
  pid_t result = 0;
  do {
    result = waitpid(pid, status, options);
  } while (result < 0 && errno == EINTR);
  return result;
}

int exitStatus(int waitStatus) {
  return WIFSIGNALED(waitStatus) ? 128 + WTERMSIG(waitStatus) : WEXITSTATUS(waitStatus);
}

}  // namespace kova::utils
