#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "Camera.h"
#include "kova/ipc/Handlers.h"
#include "kova/variant/Variant.h"

namespace kova::system_test {

using Fields = variant::Variant::Map;

/// An endpoint on a camera's bus that requests transfers and collects their events.
class Requester : private ipc::BaseHandler {
 public:
  /// Throws std::runtime_error if it cannot join the bus.
  explicit Requester(const Camera& camera);

  /// Requests the transfer that `fields` describe: "what" is that of a get or put; none or "" is a
  /// firmware update. The default "timeoutMs" is 20 s.
  /// @return the request's id
  std::uint64_t ask(Fields fields);

  /// The outcomes in the events of a request so far, in order.
  std::vector<std::string> outcomes(std::uint64_t id) const;
  /// Waits for the first outcome; "" if there is none in time.
  std::string outcome(std::uint64_t id, std::chrono::milliseconds limit = std::chrono::seconds(20));
  /// ask() and outcome() in one.
  std::string outcomeOf(Fields fields) { return outcome(ask(std::move(fields))); }
  /// Handles incoming events; waits for them at most this long.
  void pump(unsigned timeoutMs = 0);
  /// Waits some turns of the camera's loop, so that pending events arrive. Requests heat maps that
  /// do not exist, so no heat map transfer may be running.
  void settle();

 private:
  bool HandleRequest(ipc::messages::BaseRequestMessage& event, bool& rejected) override;

  ipc::Ipc ipc_;
  std::map<std::uint64_t, std::vector<std::string>> outcomes_;
};

}  // namespace kova::system_test
