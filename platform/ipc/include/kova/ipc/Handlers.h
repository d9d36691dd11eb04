#pragma once

#include <string>

#include "kova/ipc/Ipc.h"

namespace kova::ipc {

/// Handles the requests and events of the function names it was added for, see Ipc::AddHandler().
class BaseHandler {
 public:
  /// @param name name of the handler in log lines
  /// @param ipc  endpoint that receives the requests and sends the responses; not owned
  BaseHandler(std::string name, Ipc* ipc) : name_(std::move(name)), ipc_(ipc) {}
  virtual ~BaseHandler() = default;
  BaseHandler(const BaseHandler&) = delete;
  BaseHandler& operator=(const BaseHandler&) = delete;

  /// Called when a message of this process has been sent. `flag` is reserved; do not change it.
  virtual void MessageSentSuccessfully(messages::BaseMessage& message, bool& flag);

  /// Called with the answer to a request of this process, as received: an empty map (Size() 0) if
  /// the peer accepted the request without a response. `flag` is reserved; do not change it.
  /// @return whether the answer was handled
  virtual bool HandleResponse(messages::BaseRequestMessage& request,
                              messages::BaseResponseMessage& response, bool& flag);

  /// Called with a request or event, as received: not normalised, since only its concrete class
  /// knows the defaults. The answer is the response passed to Ipc::SendResponse() during this call,
  /// else an empty map. A failure or an exception is logged and answered with an error.
  /// @param rejected set to true to answer that the function is unknown
  /// @return false if the request could not be handled or answered, which is logged
  virtual bool HandleRequest(messages::BaseRequestMessage& request, bool& rejected) = 0;

  const std::string& name() const { return name_; }

 protected:
  Ipc* ipc() const { return ipc_; }

 private:
  std::string name_;
  Ipc* ipc_;
};

/// Rejects every request with the error kova.Error.UnknownFunction. Register it under the empty
/// name.
class CatchAllHandlerRejector : public BaseHandler {
 public:
  explicit CatchAllHandlerRejector(Ipc* ipc) : BaseHandler("CatchAllHandlerRejector", ipc) {}
  bool HandleRequest(messages::BaseRequestMessage& request, bool& rejected) override;
};

/// Only logs every message, with masked passwords.
class LogHandler : public BaseHandler {
 public:
  explicit LogHandler(Ipc* ipc) : BaseHandler("LogHandler", ipc) {}
  void MessageSentSuccessfully(messages::BaseMessage& message, bool& flag) override;
  bool HandleResponse(messages::BaseRequestMessage& request,
                      messages::BaseResponseMessage& response, bool& flag) override;
  bool HandleRequest(messages::BaseRequestMessage& request, bool& rejected) override;
};

/// Receives the outcome of this endpoint's own requests that expect a response.
class TransactionsHandler : public BaseHandler {
 public:
  using BaseHandler::BaseHandler;

  /// Called when a request failed.
  /// @param error D-Bus error name, for example "kova.Error.UnknownFunction"
  /// @param text  error message of the peer or the bus
  virtual void handleError(messages::BaseRequestMessage& request, const std::string& error,
                           const std::string& text) = 0;

  /// Rejects requests; this handler only receives answers.
  bool HandleRequest(messages::BaseRequestMessage& request, bool& rejected) override;
};

}  // namespace kova::ipc
