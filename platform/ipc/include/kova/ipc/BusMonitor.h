#pragma once

#include <functional>
#include <memory>
#include <string>

#include "kova/variant/Variant.h"

namespace kova::ipc {

/// A message seen on the bus.
struct SeenMessage {
  enum class Kind { Call, Answer, Error, Broadcast };
  Kind kind;
  std::string sender;       ///< endpoint name if known, else the unique name on the bus
  std::string destination;  ///< likewise; "" for a broadcast
  std::string error;        ///< D-Bus error name and text of an Error
  variant::Variant body;    ///< the message; empty if it could not be decoded
};

/// Receives all messages between endpoints (org.freedesktop.DBus.Monitoring). Requires root, or
/// permission by the bus policy.
class BusMonitor {
 public:
  BusMonitor();
  ~BusMonitor();
  BusMonitor(const BusMonitor&) = delete;
  BusMonitor& operator=(const BusMonitor&) = delete;

  /// @param error receives the reason on failure
  bool open(std::string& error);
  /// Passes pending messages to `sink`; waits up to `timeoutMs` if there are none. False if the
  /// connection is lost.
  bool Service(unsigned timeoutMs, const std::function<void(const SeenMessage&)>& sink);

 private:
  class Connection;
  std::unique_ptr<Connection> connection_;
};

}  // namespace kova::ipc
