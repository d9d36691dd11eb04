#pragma once

#include <memory>
#include <string>

#include "kova/messages/BaseMessage.h"

namespace kova::ipc {

class BaseHandler;
class Objects;
class TransactionsHandler;

/// The process's connection to the camera's message bus.
///
/// An endpoint named E owns the bus name "kova.E" and serves the object "/kova" with the interface
/// "kova.Ipc1"; see docs/bus.md for the protocol. Handlers run on the thread that calls Service().
/// Only Init(), and Service() with a time-out, block. Failures are logged where they happen and
/// returned as false.
class Ipc {
 public:
  /// The process-wide instance, created by the first call; null only if memory is exhausted.
  static Ipc* GetInstance();
  /// Closes the connection and destroys the instance. Handlers are not owned.
  static void FreeInstance();

  Ipc();
  ~Ipc();
  Ipc(const Ipc&) = delete;
  Ipc& operator=(const Ipc&) = delete;

  /// Joins the bus at KOVA_BUS_ADDRESS, else unix:path=/run/kova/bus.
  ///
  /// @param endpoint          name to own, without the prefix "kova."; "" to join without a name,
  /// for sending only
  /// @param receiveBroadcasts whether to deliver the Broadcast signals of other endpoints to the
  /// handlers
  /// @param transactions      receives the answers to this endpoint's own requests; may be null;
  /// not owned
  /// @return false if the bus cannot be reached, or the name is invalid, taken or not allowed
  bool Init(const std::string& endpoint, bool receiveBroadcasts, TransactionsHandler* transactions);

  /// Routes requests of this function name to `handler`, which must outlive the connection. The
  /// handler of the empty name receives all other functions. False if the name already has a
  /// handler.
  bool AddHandler(const std::string& functionName, BaseHandler* handler);

  /// The D-Bus objects that the endpoint publishes besides its messages, see Objects.h. An endpoint
  /// that publishes none has the object "/kova" with "kova.Ipc1" only.
  Objects& objects();

  /// Handles pending messages: at most 128 per call, and none after 40 ms, so that a flood cannot
  /// block the caller. If none is pending, waits up to `timeoutMs` for one.
  /// @return false if the connection is lost
  bool Service(unsigned timeoutMs);

  /// Sends a request or event, normalised, with `from` filled in when empty: as a broadcast if
  /// isBroadcast, else to the endpoint `to`. If that endpoint is not on the bus, the message is
  /// queued until it joins (see queueIfDestUnavailable): at most 256 messages per destination,
  /// dropping the oldest. Refuses messages of more than 1 MiB or nested too deeply for the bus.
  /// Never blocks.
  /// @return false if not joined, if the destination is not a valid name, if it is absent and
  /// queueing is off, or if the message cannot be sent
  bool SendRequest(messages::BaseRequestMessage& request);

  /// Answers the request being handled; allowed once, from within BaseHandler::HandleRequest().
  /// Fills in `requestId`, `to` and `from`.
  /// @return false if no such request is being handled or the answer could not be sent
  bool SendResponse(messages::BaseRequestMessage& request, messages::BaseResponseMessage& response);

  /// Waits, for a bounded time, until the bus has received everything sent so far. For a process
  /// that exits after sending: messages that a transport program (unixexec:) still buffers are lost
  /// with it.
  /// @return false if the bus does not answer
  bool flush();

  /// Whether an endpoint of this name is on the bus.
  bool isPresent(const std::string& endpoint) const;

 private:
  class Connection;
  std::unique_ptr<Connection> connection_;
};

}  // namespace kova::ipc
