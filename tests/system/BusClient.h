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

/// Appends something to a message; negative on failure, as sd-bus has it.
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
/// An empty map within so many arrays of anything: two D-Bus containers a level.
Append nested(unsigned depth);
/// Arrays of arrays of ... of text: one D-Bus container a level.
Append nestedArrays(unsigned depth);

/// The body of a message: one a{sv}.
Append map(std::vector<Entry> entries);
/// A request that asks for a response.
Append request(const std::string& functionName, std::vector<Entry> fields = {});

/// A client that speaks to a camera's control server from outside, free to send what no library of
/// this project would.
class BusClient {
 public:
  /// Throws std::runtime_error when it cannot join.
  explicit BusClient(const std::string& address);
  ~BusClient();
  BusClient(const BusClient&) = delete;
  BusClient& operator=(const BusClient&) = delete;

  /// Sends and waits.
  /// @return what came back: "status 0", "status 1", "taken" for the empty map, the name of a D-Bus
  /// error, "other" for anything else, "lost" when the bus ended the connection
  std::string call(const Append& body);
  /// Sends without waiting; what comes back is counted when pump() meets it.
  void post(const Append& body);
  /// Handles what has arrived; waits for it at most this long.
  void pump(unsigned timeoutMs = 0);

  std::size_t outstanding() const { return outstanding_; }
  /// How often each thing came back, in the words of call().
  const std::map<std::string, std::size_t>& outcomes() const { return outcomes_; }

 private:
  static int onAnswer(sd_bus_message* answer, void* client, sd_bus_error* error);

  std::unique_ptr<sd_bus, decltype(&sd_bus_close_unref)> bus_;
  std::size_t outstanding_ = 0;
  std::map<std::string, std::size_t> outcomes_;
};

}  // namespace kova::system_test
