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
  words_.push_back(program);
  words_.insert(words_.end(), arguments.begin(), arguments.end());
  for (std::string& word : words_) {
    if (holdsNul(word)) note(EINVAL);
    argv_.push_back(word.data());
  }
  argv_.push_back(nullptr);

  note(posix_spawn_file_actions_init(&actions_));
  note(posix_spawnattr_init(&attributes_));
  redirect(STDIN_FILENO, streams.in, O_RDONLY);
  redirect(STDOUT_FILENO, streams.out, O_WRONLY);
  redirect(STDERR_FILENO, streams.err, O_WRONLY);
  note(inheritNoneFrom(&actions_, STDERR_FILENO + 1));

  sigset_t signals{};
  sigfillset(&signals);
  note(posix_spawnattr_setsigdefault(&attributes_, &signals));
  sigemptyset(&signals);
  signalMask(signals);
  flags_ = POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK;
}

// The process group in initialised attributes is 0, which stands for a new group.
void Spawn::ownGroup() {
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

void Spawn::redirect(int stream, int given, int mode) {
  note(given != -1 ? posix_spawn_file_actions_adddup2(&actions_, given, stream)
                   : posix_spawn_file_actions_addopen(&actions_, stream, "/dev/null", mode, 0));
}

void Spawn::note(int error) {
  if (error_ == 0) error_ = error;
}

pid_t waitFor(pid_t pid, int* status) {
  pid_t result = 0;
  do {
    result = waitpid(pid, status, 0);
  } while (result == -1 && errno == EINTR);
  return result;
}

int exitStatus(int waitStatus) {
  return WIFSIGNALED(waitStatus) ? 128 + WTERMSIG(waitStatus) : WEXITSTATUS(waitStatus);
}

}  // namespace kova::utils
