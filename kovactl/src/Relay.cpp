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
// How long to wait for more data after one side has ended.
constexpr timespec kLinger{5, 0};

// One direction of the relay. Reads only when the buffer is empty.
class Way {
 public:
  Way(int source, int sink) : source_(source), sink_(sink), buffer_(kBufferSize) {}

  bool wantsRead() const { return open_ && begin_ == end_; }
  bool wantsWrite() const { return begin_ < end_; }
  /// Whether no more data will come: the source ended and its data is written, or abandon() was
  /// called.
  bool ended() const { return !open_ && begin_ == end_; }

  void read() {
    const ssize_t got = ::read(source_, buffer_.data(), buffer_.size());
    if (got > 0) {
      begin_ = 0;
      end_ = static_cast<std::size_t>(got);
    } else if (got == 0 || !isTransient()) {
      open_ = false;
    }
  }
  /// @return false if the sink is closed
  bool write() {
    const ssize_t put = ::write(sink_, buffer_.data() + begin_, end_ - begin_);
    if (put < 0) {
      return isTransient();
    }
    begin_ += static_cast<std::size_t>(put);
    return true;
  }
  /// Drops the rest: the sink is gone.
  void abandon() {
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

  // Four states. Both directions run. `in` has ended: the bus gets a half-close, and answers may
  // still follow. `out` has closed: data for the bus is still delivered. The bus has closed: done.
  // In the second and third states kLinger without an event ends the relay, too.
  ExitStatus run() {
    while (!busClosed_ && !(up_.ended() && outClosed_)) {
      if (stopRequested()) {
        return stopStatus();
      }
      const int ready = await();
      if (ready < 0 && errno != EINTR) {
        return fail(ExitStatus::Local, std::string("cannot wait: ") + std::strerror(errno));
      }
      if (ready == 0) {
        break;
      }
      if (ready > 0) {
        move();
      }
    }
    return ExitStatus::Ok;
  }

 private:
  enum Place { In, Out, Bus };

  // A descriptor without wanted events is left out: poll() would report its POLLHUP at once, every
  // time.
  static pollfd wish(int fd, bool read, bool write) {
    const int events = (read ? POLLIN : 0) | (write ? POLLOUT : 0);
    return {events != 0 ? fd : -1, static_cast<short>(events), 0};
  }

  int await() {
    places_ = {wish(in_, up_.wantsRead(), false), wish(out_, false, down_.wantsWrite()),
               wish(bus_, down_.wantsRead(), up_.wantsWrite())};
    if (!outClosed_) {
      places_[Out].fd = out_;  // always, to notice that its reader is gone
    }
    const bool lingers = up_.ended() || outClosed_;
    return ppoll(places_.data(), places_.size(), lingers ? &kLinger : nullptr, &blocked_.before());
  }

  void move() {
    if (is(Bus, POLLOUT) && up_.wantsWrite() && !up_.write()) {
      up_.abandon();
    }
    if (is(Bus, POLLIN) && down_.wantsRead()) {
      down_.read();
    }
    const bool refused = is(Out, POLLOUT) && down_.wantsWrite() && !down_.write();
    if (refused || is(Out, 0)) {
      outClosed_ = true;
      down_.abandon();
    }
    if (is(In, POLLIN) && up_.wantsRead()) {
      up_.read();
    }
    if (up_.ended() && !halfClosed_) {
      halfClosed_ = true;
      shutdown(bus_, SHUT_WR);
    }
    busClosed_ = down_.ended() && !outClosed_;
  }

  // Whether a descriptor is ready for `event`, or has failed or hung up; the read or write that
  // follows tells which.
  bool is(Place place, int event) const {
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
  return Relay(in, out, bus).run();
}

}  // namespace kova::ctl
