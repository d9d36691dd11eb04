#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "kova/variant/Variant.h"

namespace kova::ipc {

/// Reads the objects that an endpoint publishes at "/kova" and below, over its own connection
/// (D-Bus specification, "Standard Interfaces").
///
/// One call is pending at a time; starting another abandons it. Service() delivers the answer.
/// Received data is bounded in size but otherwise untrusted; see docs/bus.md for the mapping of
/// D-Bus types to Variant.
class BusObjects {
 public:
  struct Answer {
    std::string error;   ///< D-Bus error name; "" for success
    std::string text;    ///< error message
    std::string sender;  ///< unique name of the answering peer; the bus or "" if it did not answer
    variant::Variant value;  ///< returned value; empty if none
  };
  using Receiver = std::function<void(const Answer&)>;

  /// @param endpoint whose objects to read
  explicit BusObjects(std::string endpoint);
  ~BusObjects();
  BusObjects(const BusObjects&) = delete;
  BusObjects& operator=(const BusObjects&) = delete;

  /// Joins the bus, without a name.
  /// @param error receives the reason on failure
  bool open(std::string& error);

  /// Reads all objects below "/kova": a map from path to a map from interface to a map of
  /// properties.
  bool readAll(std::uint32_t timeoutMs, Receiver receiver);
  /// Reads the properties of an interface of an object: a map.
  bool read(const std::string& path, const std::string& interface, std::uint32_t timeoutMs,
            Receiver receiver);
  /// Calls a method without arguments.
  bool call(const std::string& path, const std::string& interface, const std::string& method,
            std::uint32_t timeoutMs, Receiver receiver);

  /// Pins later calls and follow() to the process with this unique name instead of the current
  /// owner of the endpoint. Calls fail once that process has left the bus.
  void keepTo(const std::string& uniqueName);

  struct Signal {
    std::string interface;
    std::string name;
    variant::Variant arguments;  ///< an array; empty if they are invalid
  };
  /// Calls `changed` for every broadcast signal of the objects at `path` and below, until another
  /// path is followed. Signals may get lost, so the caller must also poll from time to time.
  bool follow(const std::string& path, std::function<void(const Signal&)> changed);

  /// Handles pending messages, at most 128; waits up to `timeoutMs` if none is pending. False if
  /// the connection is lost. Calls the receivers, which may start calls.
  bool Service(unsigned timeoutMs);

 private:
  class Connection;
  std::string endpoint_;
  std::unique_ptr<Connection> connection_;
};

}  // namespace kova::ipc
