#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "../../platform/ipc/src/SdBus.h"
#include "PrivateBus.h"
#include "kova/ipc/Handlers.h"
#include "kova/ipc/Ipc.h"

namespace kova::ctl::testing {

/// A test with a private bus.
class BusTest : public ::testing::Test {
 protected:
  ipc::testing::PrivateBus bus_;
};

/// An endpoint controlled by a test, on a separate thread.
class Peer : private ipc::BaseHandler {
 public:
  using Request = ipc::messages::BaseRequestMessage;
  /// Called for each request; may answer through `ipc`.
  using Script = std::function<void(Request& request, ipc::Ipc& ipc, bool& rejected)>;

  /// Returns once the endpoint is on the bus.
  explicit Peer(Script script, const std::string& endpoint = "kova_ctlserver");
  ~Peer() override;

  /// The requests received so far.
  std::vector<Request> received() const;
  /// Waits until this number of requests has been received.
  bool awaitReceived(std::size_t count) const;

 private:
  bool HandleRequest(Request& request, bool& rejected) override;

  Script script_;
  ipc::Ipc ipc_;
  mutable std::mutex mutex_;
  std::vector<Request> received_;
  std::atomic<bool> stop_{false};
  std::thread thread_;
};

/// Owns the control server's name but never answers.
class MutePeer {
 public:
  MutePeer();
  /// Reads its messages until a request is among them.
  bool awaitRequest();

 private:
  std::string error_;
  ipc::BusPtr bus_;
};

/// Answers with this status and payload.
Peer::Script answering(std::uint64_t statusCode, variant::Variant payload = {});
/// Does nothing: the bus library confirms the request.
Peer::Script takingNote();

}  // namespace kova::ctl::testing
