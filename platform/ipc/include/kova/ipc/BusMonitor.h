#pragma once

#include <functional>
#include <memory>
#include <string>

#include "kova/variant/Variant.h"

namespace kova::ipc {

/// One message seen on the bus.
struct SeenMessage {
  enum class Kind { Call, Answer, Error, Broadcast };
  Kind kind;
  std::string sender;       ///< endpoint name where known, else the bus's unique name
  std::string destination;  ///< likewise; "" for a broadcast
  std::string error;        ///< D-Bus error name and text of an Error
  variant::Variant body;    ///< the message; empty when it could not be decoded
};

/// Listens to everything that passes between endpoints (org.freedesktop.DBus.Monitoring); needs
/// root or the right granted by the bus policy.
class BusMonitor {
 public:
  BusMonitor();
  ~BusMonitor();
  BusMonitor(const BusMonitor&) = delete;
  BusMonitor& operator=(const BusMonitor&) = delete;

  /// @param error receives what went wrong
  bool Open(std::string& error);
  /// Hands on what was seen; waits up to `timeoutMs` when nothing is pending. False when the
  /// connection is lost.
  bool Service(unsigned timeoutMs, const std::function<void(const SeenMessage&)>& sink);

 private:
  class Connection;
  std::unique_ptr<Connection> connection_;
};

}  // namespace kova::ipc
