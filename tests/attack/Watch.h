#pragma once

#include <atomic>
#include <chrono>
#include <string>
#include <thread>

#include "HostProcess.h"
#include "Journal.h"

namespace kova::attack {

/// Asks a camera's control server for statistics, again and again, on a thread and a connection of
/// its own. Every answer has to come in time, and from the process that was there at first.
class Watch {
 public:
  Watch(const system_test::Camera& camera, Journal& journal, std::chrono::milliseconds bound);
  ~Watch();
  Watch(const Watch&) = delete;
  Watch& operator=(const Watch&) = delete;

  /// Asks no more.
  void stop();
  /// An answer may take so long from here on.
  void allow(std::chrono::milliseconds bound) { boundMs_ = bound.count(); }
  /// The longest that one took, less the time for which the server waited for a processor: that the
  /// machine is busy says nothing of the server.
  std::chrono::milliseconds worst() const { return std::chrono::milliseconds(worstMs_); }
  /// Whether the process of the beginning lives.
  bool alive() const { return alive_; }
  /// Whether the last answer has come, or may still come in time.
  bool answering() const { return answering_; }
  const system_test::HostProcess& server() const { return server_; }

 private:
  void run(const std::string& address);
  void watch(const std::string& address);
  std::chrono::milliseconds waitedForProcessor() const;

  Journal& journal_;
  const system_test::HostProcess server_;
  std::atomic<std::int64_t> boundMs_;
  std::atomic<std::int64_t> worstMs_ = 0;
  std::atomic<bool> alive_ = true;
  std::atomic<bool> answering_ = true;
  std::atomic<bool> stopped_ = false;
  std::thread thread_;  // last: it uses the rest
};

}  // namespace kova::attack
