#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <ctime>
#include <string_view>

#include "Errno.h"
#include "Pipe.h"
#include "ProgramLimits.h"
#include "Spawn.h"
#include "Watchdog.h"
#include "kova/utils/Process.h"
#include "kova/utils/ServiceManager.h"

namespace kova::utils {
namespace {

// Upper bound of the delay in noticing the child's exit.
constexpr int kLongestPauseMs = 16;

/// Blocks SIGPIPE, which would kill this process if a child closes its standard input.
class SigPipeBlock {
 public:
  SigPipeBlock() {
    sigaddset(&sigpipe_, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &sigpipe_, &previous_);
  }
  /// Consumes a SIGPIPE raised meanwhile, but not one that was pending before.
  ~SigPipeBlock() {
    const timespec atOnce{};
    if (!wasPending_ && isPending()) sigtimedwait(&sigpipe_, nullptr, &atOnce);
    pthread_sigmask(SIG_SETMASK, &previous_, nullptr);
  }
  SigPipeBlock(const SigPipeBlock&) = delete;
  SigPipeBlock& operator=(const SigPipeBlock&) = delete;

 private:
  static bool isPending() {
    sigset_t pending;
    sigpending(&pending);
    return sigismember(&pending, SIGPIPE) == 1;
  }

  sigset_t sigpipe_{};
  sigset_t previous_{};
  const bool wasPending_ = isPending();
};

/// An output stream of the child, captured up to a limit.
class Capture {
 public:
  Capture(UniqueFd fd, std::string& text, std::size_t limit)
      : fd_(std::move(fd)), text_(text), limit_(limit) {}

  int fd() const { return fd_.get(); }

  /// Call it when data or end of file is pending. Reads only once, so that a child with endless
  /// output cannot block the caller.
  void read(std::size_t atMost) {
    std::array<char, 65536> buffer;
    const ssize_t got = ::read(fd_.get(), buffer.data(), std::min(atMost, buffer.size()));
    if (got > 0) {
      text_.append(buffer.data(), std::min(static_cast<std::size_t>(got), limit_ - text_.size()));
    } else {
      fd_.reset();
    }
  }

  /// Reads what is currently in the pipe.
  void drain() {
    int pending = 0;
    ioctl(fd_.get(), FIONREAD, &pending);
    for (int left = pending; left > 0; left -= 65536) read(static_cast<std::size_t>(left));
  }

 private:
  UniqueFd fd_;
  std::string& text_;
  std::size_t limit_;
};

/// The child's standard input, written as the child reads it.
class Feed {
 public:
  Feed(UniqueFd fd, std::string_view rest) : fd_(std::move(fd)), rest_(rest) {
    if (rest_.empty()) fd_.reset();
  }

  int fd() const { return fd_.get(); }

  /// Call it when there is room, or no reader left.
  void write() {
    const ssize_t put = ::write(fd_.get(), rest_.data(), rest_.size());
    if (put > 0) rest_.remove_prefix(static_cast<std::size_t>(put));
    if (rest_.empty() || put < 0) fd_.reset();
  }

 private:
  UniqueFd fd_;
  std::string_view rest_;
};

/// Transfers pending bytes, waiting at most `timeoutMs` for some.
void pump(Feed& in, Capture& out, Capture& err, int timeoutMs) {
  // poll(2) ignores descriptors of -1.
  std::array polled{pollfd{in.fd(), POLLOUT, {}}, pollfd{out.fd(), POLLIN, {}},
                    pollfd{err.fd(), POLLIN, {}}};
  poll(polled.data(), polled.size(), timeoutMs);
  if (polled[0].revents != 0) in.write();
  if (polled[1].revents != 0) out.read(SIZE_MAX);
  if (polled[2].revents != 0) err.read(SIZE_MAX);
}

/// Serves the pipes until the child exits. Does not wait for end of file, since descendants of the
/// child may keep the pipes open forever.
int attend(pid_t child, Feed& in, Capture& out, Capture& err, Watchdog& watchdog) {
  int status = 0;
  pid_t ended = 0;
  int step = 1;
  while ((ended = watchdog.end(&status)) == 0) {
    watchdog.check();
    notifyAlive();
    pump(in, out, err, watchdog.pollTimeout(step));
    step = std::min(step * 2, kLongestPauseMs);
  }
  out.drain();
  err.drain();
  return ended == child ? exitStatus(status) : kNotStarted;
}

}  // namespace

int sysExec(const std::string& program, const std::vector<std::string>& arguments,
            const std::string& input, std::string& out, std::string& err, unsigned timeoutMs,
            unsigned graceMs, unsigned captureKiB) {
  out.clear();
  err.clear();
  Pipe inPipe, outPipe, errPipe;
  if (!inPipe.open() || !outPipe.open() || !errPipe.open()) return kNotStarted;

  Spawn spawn(program, arguments, {inPipe.read.get(), outPipe.write.get(), errPipe.write.get()});
  spawn.ownGroup();
  ErrnoGuard reason;
  pid_t child = -1;
  if (const int error = spawn.start(&child); error != 0) {
    reason.set(error);
    return kNotStarted;
  }
  inPipe.read.reset();
  outPipe.write.reset();
  errPipe.write.reset();
  for (const int fd : {inPipe.write.get(), outPipe.read.get(), errPipe.read.get()}) {
    fcntl(fd, F_SETFL, O_NONBLOCK);
  }

  const SigPipeBlock noSigPipe;
  const std::size_t limit = std::size_t{captureKiB} * 1024U;
  Feed in(std::move(inPipe.write), input);
  Capture outCapture(std::move(outPipe.read), out, limit);
  Capture errCapture(std::move(errPipe.read), err, limit);
  Watchdog watchdog(child, program, timeLimit(program, timeoutMs), graceTime(timeoutMs, graceMs));
  const int status = attend(child, in, outCapture, errCapture, watchdog);
  if (watchdog.expired()) reason.set(ETIMEDOUT);
  return status;
}

}  // namespace kova::utils
