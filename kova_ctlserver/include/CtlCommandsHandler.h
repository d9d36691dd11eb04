#pragma once

#include <string_view>
#include <vector>

#include "kova/ipc/Handlers.h"

namespace kova::ctlserver {

class CtlServer;

/// Turns each request into the message class of its function, calls the operation of CtlServer, and
/// sends the response.
class CtlCommandsHandler : public ipc::BaseHandler {
 public:
  /// @param ipc    endpoint through which requests arrive and responses leave; not owned
  /// @param server performs the requests; not owned
  CtlCommandsHandler(ipc::Ipc* ipc, CtlServer* server);

  /// The function names to register, in this order.
  static std::vector<std::string_view> functionNames();

  void MessageSentSuccessfully(ipc::messages::BaseMessage& message, bool& flag) override;

  /// Ignores its arguments and returns true: the daemon sends no request that expects a response.
  bool HandleResponse(ipc::messages::BaseRequestMessage& request,
                      ipc::messages::BaseResponseMessage& response, bool& flag) override;

  /// Performs one request. Unless its function has no response or `responseExpected` is false,
  /// sends a response with `statusCode` 0 or 1 and the `payload` that the operation filled.
  /// @return true, or the result of sending the response; false without performing the request once
  ///         the server has ended
  bool HandleRequest(ipc::messages::BaseRequestMessage& request, bool& rejected) override;

  /// Whether an "ExitService" request has arrived.
  bool exitRequested() const { return exitFlag_; }

 private:
  enum class AnswerPolicy;
  struct Call;
  struct Outcome;
  struct Row;
  static const Row kRows[];

  bool respond(ipc::messages::BaseRequestMessage& request, bool succeeded,
               const variant::Variant& payload);

  CtlServer* server_;
  bool exitFlag_ = false;
};

}  // namespace kova::ctlserver
