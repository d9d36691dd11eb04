#include "Relay.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include "Terminal.h"

namespace kova::ctl {
namespace {

constexpr std::size_t kBufferSize = 65536;
// What a side may still say after the other one ended.
constexpr timespec kLinger{5, 0};

// One way of the relay. It is read only when everything before is written.
class Way {
 public:
  Way(int source, int sink) : source_(source), sink_(sink), buffer_(kBufferSize) {}

  bool WantsRead() const { return open_ && begin_ == end_; }
  bool WantsWrite() const { return begin_ < end_; }
  /// Nothing more comes: the source ended and all of it is written, or the way is abandoned.
  bool Ended() const { return !open_ && begin_ == end_; }

  void Read() {
    const ssize_t got = read(source_, buffer_.data(), buffer_.size());
    if (got > 0) {
      begin_ = 0;
      end_ = static_cast<std::size_t>(got);
    } else if (got == 0 || !isTransient()) {
      open_ = false;
    }
  }
  /// @return false when the sink takes no more
  bool Write() {
    const ssize_t put = write(sink_, buffer_.data() + begin_, end_ - begin_);
    if (put < 0) {
      return isTransient();
    }
    begin_ += static_cast<std::size_t>(put);
    return true;
  }
  /// Drops what is left: nobody reads it.
  void Abandon() {
    open_ = false;
    begin_ = end_;
  }

 private:
  static bool isTransient() { return errno == EAGAIN || errno == EINTR; }

  int source_;
  int sink_;
  std::vector<char> buffer_;
  std::size_t begin_ = 0;
  std::size_t end_ = 0;
  bool open_ = true;
};

class Relay {
 public:
  Relay(int in, int out, int bus) : in_(in), out_(out), bus_(bus), up_(in, bus), down_(bus, out) {}

  // Four states, by which ways have ended. Both run; `up` has ended, which is passed on to the bus
  // as a half-close: answers may follow; `out` has closed: what was said before may still arrive;
  // the bus has closed: done.
  ExitStatus Run() {
    while (!busClosed_ && !(up_.Ended() && outClosed_)) {
      if (stopRequested()) {
        return stopStatus();
      }
      const int ready = Await();
      if (ready < 0 && errno != EINTR) {
        return fail(ExitStatus::Local, std::string("cannot wait: ") + std::strerror(errno));
      }
      if (ready == 0) {
        break;
      }
      if (ready > 0) {
        Move();
      }
    }
    return ExitStatus::Ok;
  }

 private:
  enum Place { kIn, kOut, kBus };

  // A descriptor from which nothing is wanted is left out: its hang-up would end every wait.
  static pollfd wish(int fd, bool read, bool write) {
    const int events = (read ? POLLIN : 0) | (write ? POLLOUT : 0);
    return {events != 0 ? fd : -1, static_cast<short>(events), 0};
  }

  int Await() {
    places_ = {wish(in_, up_.WantsRead(), false), wish(out_, false, down_.WantsWrite()),
               wish(bus_, down_.WantsRead(), up_.WantsWrite())};
    if (!outClosed_) {
      places_[kOut].fd = out_;  // also to learn that nobody reads it any more
    }
    const bool lingers = up_.Ended() || outClosed_;
    return ppoll(places_.data(), places_.size(), lingers ? &kLinger : nullptr, &blocked_.Before());
  }

  void Move() {
    if (Is(kBus, POLLOUT) && up_.WantsWrite() && !up_.Write()) {
      up_.Abandon();
    }
    if (Is(kBus, POLLIN) && down_.WantsRead()) {
      down_.Read();
    }
    const bool refused = Is(kOut, POLLOUT) && down_.WantsWrite() && !down_.Write();
    if (refused || Is(kOut, 0)) {
      outClosed_ = true;
      down_.Abandon();
    }
    if (Is(kIn, POLLIN) && up_.WantsRead()) {
      up_.Read();
    }
    if (up_.Ended() && !halfClosed_) {
      halfClosed_ = true;
      shutdown(bus_, SHUT_WR);
    }
    busClosed_ = down_.Ended() && !outClosed_;
  }

  // Whether a descriptor is ready for `event`, or has failed or hung up, which reading or writing
  // it tells apart.
  bool Is(Place place, int event) const {
    return (places_[place].revents & (event | POLLERR | POLLHUP | POLLNVAL)) != 0;
  }

  StopSignalsBlocked blocked_;
  int in_;
  int out_;
  int bus_;
  Way up_;
  Way down_;
  std::array<pollfd, 3> places_{};
  bool outClosed_ = false;
  bool halfClosed_ = false;
  bool busClosed_ = false;
};

}  // namespace

ExitStatus relay(int in, int out, int bus) {
  for (const int fd : {in, out, bus}) {
    fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK);
  }
  return Relay(in, out, bus).Run();
}

}  // namespace kova::ctl
