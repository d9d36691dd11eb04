#pragma once

#include <string>

#include "kova/ipc/Ipc.h"

namespace kova::ipc {

/// Receives what arrives for the function names it was added for (Ipc::AddHandler).
class BaseHandler {
 public:
  /// @param name names the handler in log lines
  /// @param ipc  endpoint that requests arrive through and responses leave by; not owned
  BaseHandler(std::string name, Ipc* ipc) : name_(std::move(name)), ipc_(ipc) {}
  virtual ~BaseHandler() = default;
  BaseHandler(const BaseHandler&) = delete;
  BaseHandler& operator=(const BaseHandler&) = delete;

  /// A message of this process has left for its destination. `flag` is reserved; leave it alone.
  virtual void MessageSentSuccessfully(messages::BaseMessage& message, bool& flag);

  /// The answer to a request of this process, as it came; an empty map (Size() 0) when the peer
  /// took the request and had nothing to say. `flag` is reserved; leave it alone.
  /// @return whether the answer was taken
  virtual bool HandleResponse(messages::BaseRequestMessage& request,
                              messages::BaseResponseMessage& response, bool& flag);

  /// A request or event, as it came: not normalised, since only its concrete class knows the
  /// defaults. It is answered with what Ipc::SendResponse is given meanwhile, else with an empty
  /// map. What is thrown is logged and answered with an error.
  /// @param rejected set it to true to have the sender told that the function is unknown
  /// @return false when the request could not be handled or answered; this is only logged
  virtual bool HandleRequest(messages::BaseRequestMessage& request, bool& rejected) = 0;

  const std::string& name() const { return name_; }

 protected:
  Ipc* ipc() const { return ipc_; }

 private:
  std::string name_;
  Ipc* ipc_;
};

/// Rejects every request, so that its sender gets the error kova.Error.UnknownFunction. Meant for
/// the empty name.
class CatchAllHandlerRejector : public BaseHandler {
 public:
  explicit CatchAllHandlerRejector(Ipc* ipc) : BaseHandler("CatchAllHandlerRejector", ipc) {}
  bool HandleRequest(messages::BaseRequestMessage& request, bool& rejected) override;
};

/// Writes every message it is given to the log, passwords masked, and leaves it at that.
class LogHandler : public BaseHandler {
 public:
  explicit LogHandler(Ipc* ipc) : BaseHandler("LogHandler", ipc) {}
  void MessageSentSuccessfully(messages::BaseMessage& message, bool& flag) override;
  bool HandleResponse(messages::BaseRequestMessage& request,
                      messages::BaseResponseMessage& response, bool& flag) override;
  bool HandleRequest(messages::BaseRequestMessage& request, bool& rejected) override;
};

/// Follows this endpoint's own requests that expect a response to their end.
class TransactionsHandler : public BaseHandler {
 public:
  using BaseHandler::BaseHandler;

  /// A request got an error instead of an answer.
  /// @param error D-Bus error name, for example "kova.Error.UnknownFunction"
  /// @param text  what the peer or the bus said of it
  virtual void HandleError(messages::BaseRequestMessage& request, const std::string& error,
                           const std::string& text) = 0;

  /// Requests are not this handler's business.
  bool HandleRequest(messages::BaseRequestMessage& request, bool& rejected) override;
};

}  // namespace kova::ipc
