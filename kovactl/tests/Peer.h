#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "PrivateBus.h"
#include "kova/ipc/BusMonitor.h"
#include "kova/ipc/Handlers.h"
#include "kova/ipc/Ipc.h"

namespace kova::ctl::testing {

/// A test with a private bus.
class BusTest : public ::testing::Test {
 protected:
  std::string socket() const { return bus_.address().substr(std::string("unix:path=").size()); }

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

/// Owns an endpoint's name but never reads its messages.
class MutePeer {
 public:
  explicit MutePeer(const std::string& endpoint = "kova_ctlserver");

 private:
  ipc::Ipc ipc_;
};

/// Monitors the bus to follow the progress of a kovactl.
class Witness {
 public:
  Witness();
  /// Waits for a request to this function.
  bool awaitCall(const std::string& function);

 private:
  ipc::BusMonitor monitor_;
  std::set<std::string> called_;
};

/// Answers with this status and payload.
Peer::Script answering(std::uint64_t statusCode, variant::Variant payload = {});
/// Does nothing: the bus library confirms the request.
Peer::Script takingNote();

}  // namespace kova::ctl::testing
