#include "SystemLog.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <iomanip>
#include <limits>
#include <mutex>
#include <sstream>

#include "kova/logger/Logger.h"
#include "kova/utils/Clock.h"
#include "kova/utils/UniqueFd.h"

namespace kova::logger {
namespace {

constexpr char kSocket[] = "/dev/log";
constexpr std::uint64_t kBudgetMs = 200;
constexpr std::uint64_t kBudgetPeriodMs = 1000;

/// Label of each line; before openSystemLog(), the defaults of syslog(3).
struct Label {
  std::string identity = program_invocation_short_name;
  int options = 0;
  int facility = LOG_USER;
};

/// The time in the format of syslogd: "Nov  2 07:09:05". Not strftime(3), which localizes the
/// month.
std::string timestamp() {
  const time_t seconds = utils::now().tv_sec;
  tm local{};
  localtime_r(&seconds, &local);
  std::ostringstream text;
  text << std::put_time(&local, "%b %e %T");
  return text.str();
}

/// The connection to the system log. Most implementations of syslogd listen for datagrams, some for
/// streams.
class Connection {
 public:
  void label(const char* identity, int options, int facility) {
    label_ = {identity, options, facility};
  }

  void send(int level, const std::string& text) {
    if (dropped_ != 0 && transmit(record(LOG_WARNING, notice()))) {
      dropped_ = 0;
    }
    if (dropped_ != 0 || !transmit(record(level, text))) {
      dropped_ = std::min(dropped_, std::numeric_limits<int>::max() - 1) + 1;
    }
  }

 private:
  enum class Outcome { Taken, Full, Lost };

  std::string notice() const {
    std::array<char, 80> text;
    std::snprintf(text.data(), text.size(), "Dropped %d lines that the system log did not take",
                  dropped_);
    return "kova_logger SystemLog.send:" + std::to_string(__LINE__) + ": " + text.data();
  }

  std::string record(int level, const std::string& text) const {
    std::string line =
        "<" + std::to_string(label_.facility | level) + ">" + timestamp() + " " + label_.identity;
    if ((label_.options & LOG_PID) != 0) {
      line += "[" + std::to_string(getpid()) + "]";
    }
    return line + ": " + text;
  }

  /// Reconnects after a restart of syslogd: put() closes a lost connection, and the record is sent
  /// again over a new one.
  bool transmit(const std::string& record) {
    if (fd_ && put(record)) {
      return true;
    }
    return !fd_ && connect() && put(record);
  }

  bool connect() { return connect(SOCK_DGRAM) || (errno == EPROTOTYPE && connect(SOCK_STREAM)); }

  bool connect(int type) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, kSocket, sizeof kSocket);
    utils::UniqueFd fd(socket(AF_UNIX, type | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!fd ||
        ::connect(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) < 0) {
      return false;
    }
    fd_ = std::move(fd);
    type_ = type;
    return true;
  }

  /// False if the record was not sent; closes the connection unless it is merely full.
  bool put(const std::string& record) {
    Outcome outcome = tryPut(record);
    if (outcome == Outcome::Full) {
      waitForRoom();
      outcome = tryPut(record);
    }
    if (outcome == Outcome::Lost) {
      fd_.reset();
    }
    return outcome == Outcome::Taken;
  }

  /// A record that a stream accepts only in part is lost along with the connection.
  Outcome tryPut(const std::string& record) const {
    const std::size_t size = record.size() + (type_ == SOCK_STREAM ? 1 : 0);  // plus the final NUL
    const ssize_t sent = ::send(fd_.get(), record.c_str(), size, MSG_DONTWAIT | MSG_NOSIGNAL);
    if (sent == static_cast<ssize_t>(size)) {
      return Outcome::Taken;
    }
    return sent == -1 && (errno == EAGAIN || errno == ENOBUFS) ? Outcome::Full : Outcome::Lost;
  }

  /// Waits for POLLOUT, at most kBudgetMs in total per kBudgetPeriodMs.
  void waitForRoom() {
    const std::uint64_t begin = utils::nowMs();
    if (begin - budgetBegin_ >= kBudgetPeriodMs) {
      budgetBegin_ = begin;
      budgetMs_ = kBudgetMs;
    }
    pollfd room{fd_.get(), POLLOUT, {}};
    poll(&room, 1, static_cast<int>(budgetMs_));
    budgetMs_ -= std::min(budgetMs_, utils::nowMs() - begin);
  }

  Label label_;
  utils::UniqueFd fd_;
  int type_ = SOCK_DGRAM;
  int dropped_ = 0;
  std::uint64_t budgetBegin_ = 0;
  std::uint64_t budgetMs_ = kBudgetMs;
};

std::mutex guard;

// Never destroyed: a line may be logged while the process ends.
Connection& connection() {
  static Connection& only = *new Connection;
  return only;
}

}  // namespace

void openSystemLog(const char* identity, int options, int facility) {
  openlog(identity, options, facility);
  const std::lock_guard lock(guard);
  connection().label(identity, options, facility);
}

void sendToSystemLog(int level, const std::string& text) {
  const std::lock_guard lock(guard);
  connection().send(level, text);
}

}  // namespace kova::logger
