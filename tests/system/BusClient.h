#pragma once

#include <kova_sd_bus.h>

#include <cstddef>
#include <functional>
#include <initializer_list>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace kova::system_test {

/// Appends something to a message; negative on failure, as in sd-bus.
using Append = std::function<int(sd_bus_message*)>;
using Entry = std::pair<std::string, Append>;

/// Values, each in a variant. `type` is a basic D-Bus type other than text.
template <typename T>
Append value(char type, T content) {
  return [=](sd_bus_message* message) {
    const char types[] = {type, '\0'};
    return sd_bus_message_append(message, "v", types, content);
  };
}
Append text(std::string content);
Append bytes(std::string content);
Append flag(bool content);
/// An empty map within `depth` arrays of variants: two D-Bus containers per level.
Append nested(unsigned depth);
/// Text within `depth` arrays: one D-Bus container per level.
Append nestedArrays(unsigned depth);

/// The body of a message: one a{sv}.
Append map(std::vector<Entry> entries);
/// A request that asks for a response.
Append request(const std::string& functionName, std::vector<Entry> fields = {});

/// A client outside the camera that can send its control server messages that no library of this
/// project would.
class BusClient {
 public:
  /// Throws std::runtime_error if it cannot join the bus.
  explicit BusClient(const std::string& address);
  ~BusClient();
  BusClient(const BusClient&) = delete;
  BusClient& operator=(const BusClient&) = delete;

  /// Sends and waits.
  /// @return the outcome: "status 0", "status 1", "taken" for the empty map, the name of a D-Bus
  /// error, "other" for anything else, "lost" if the bus closed the connection
  std::string call(const Append& body);
  /// Sends without waiting; pump() counts the outcome.
  void post(const Append& body);
  /// Handles incoming answers; waits for them at most this long.
  void pump(unsigned timeoutMs = 0);

  std::size_t outstanding() const { return outstanding_; }
  /// How often each outcome of call() occurred.
  const std::map<std::string, std::size_t>& outcomes() const { return outcomes_; }

 private:
  static int onAnswer(sd_bus_message* answer, void* client, sd_bus_error* error);

  std::unique_ptr<sd_bus, decltype(&sd_bus_close_unref)> bus_;
  std::size_t outstanding_ = 0;
  std::map<std::string, std::size_t> outcomes_;
};

}  // namespace kova::system_test
