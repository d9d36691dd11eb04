#pragma once

#include <atomic>
#include <chrono>
#include <string>
#include <thread>

#include "HostProcess.h"
#include "Journal.h"

namespace kova::attack {

/// Polls a camera's control server for statistics on a separate thread and connection. Every answer
/// must come in time, and the server must remain the same process.
class Watch {
 public:
  Watch(const system_test::Camera& camera, Journal& journal, std::chrono::milliseconds bound);
  ~Watch();
  Watch(const Watch&) = delete;
  Watch& operator=(const Watch&) = delete;

  /// Stops polling.
  void stop();
  /// Sets the bound for answers from here on.
  void allow(std::chrono::milliseconds bound) { boundMs_ = bound.count(); }
  /// The longest answer time, less the time that the server waited for a processor, which depends
  /// on the machine's load and not on the server.
  std::chrono::milliseconds worst() const { return std::chrono::milliseconds(worstMs_); }
  /// Whether the original server process is alive.
  bool alive() const { return alive_; }
  /// Whether the last answer has arrived or may still arrive in time.
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
