#pragma once

#include <atomic>
#include <functional>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "kova/ipc/BusMonitor.h"
#include "kova/ipc/Handlers.h"
#include "kova/ipc/Ipc.h"

namespace kova::ctl::testing {

/// An endpoint that does what a test says, on a thread of its own.
class Peer : private ipc::BaseHandler {
 public:
  using Request = ipc::messages::BaseRequestMessage;
  /// Called for each request; answers through `ipc` if it wants to.
  using Script = std::function<void(Request& request, ipc::Ipc& ipc, bool& rejected)>;

  /// On the bus when the constructor returns.
  explicit Peer(Script script, const std::string& endpoint = "kova_ctlserver");
  ~Peer() override;

  /// The requests received so far.
  std::vector<Request> Received() const;
  /// Waits until so many requests have come.
  bool AwaitReceived(std::size_t count) const;

 private:
  bool HandleRequest(Request& request, bool& rejected) override;

  Script script_;
  ipc::Ipc ipc_;
  mutable std::mutex mutex_;
  std::vector<Request> received_;
  std::atomic<bool> stop_{false};
  std::thread thread_;
};

/// Owns the name of an endpoint and never looks at what arrives.
class MutePeer {
 public:
  explicit MutePeer(const std::string& endpoint = "kova_ctlserver");

 private:
  ipc::Ipc ipc_;
};

/// Sees what passes on the bus, to know how far a kovactl has come.
class Witness {
 public:
  Witness();
  /// Waits for a call of this function.
  bool AwaitCall(const std::string& function);

 private:
  ipc::BusMonitor monitor_;
  std::set<std::string> called_;
};

/// Answers with this status and payload.
Peer::Script answering(std::uint64_t statusCode, variant::Variant payload = {});
/// Does nothing: the request counts as taken.
Peer::Script takingNote();

}  // namespace kova::ctl::testing
