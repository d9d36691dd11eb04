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

/// An endpoint of its own on a camera's bus that asks for transfers and keeps the events they
/// cause.
class Requester : private ipc::BaseHandler {
 public:
  /// Throws std::runtime_error when it cannot join.
  explicit Requester(const Camera& camera);

  /// Asks for what `fields` say: a "what" of get or put, or none or "" for a firmware update.
  /// Without a "timeoutMs" the transfer has 20 s.
  /// @return the request's id
  std::uint64_t ask(Fields fields);

  /// The outcomes that events have told of a request so far, in order.
  std::vector<std::string> outcomes(std::uint64_t id) const;
  /// Waits for the first; "" when there is none in time.
  std::string outcome(std::uint64_t id, std::chrono::milliseconds limit = std::chrono::seconds(20));
  /// ask() and outcome() in one.
  std::string outcomeOf(Fields fields) { return outcome(ask(std::move(fields))); }
  /// Events of all requests so far.
  std::size_t count() const { return count_; }
  /// Takes what has arrived; waits for it for at most so long.
  void pump(unsigned timeoutMs = 0);
  /// Waits some turns of the camera's loop, so that events that were due have come: with heat maps
  /// that are not there, so no heat map may be under way.
  void settle();

 private:
  bool HandleRequest(ipc::messages::BaseRequestMessage& event, bool& rejected) override;

  ipc::Ipc ipc_;
  std::map<std::uint64_t, std::vector<std::string>> outcomes_;
  std::size_t count_ = 0;
};

}  // namespace kova::system_test
