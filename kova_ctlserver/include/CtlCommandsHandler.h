#pragma once

#include <string_view>
#include <vector>

#include "kova/ipc/Handlers.h"

namespace kova::ctlserver {

class CtlServer;

/// Turns each request into the typed message of its function, has CtlServer carry it out, and
/// answers it.
class CtlCommandsHandler : public ipc::BaseHandler {
 public:
  /// @param ipc    endpoint through which requests arrive and responses leave; not owned
  /// @param server carries the requests out; not owned
  CtlCommandsHandler(ipc::Ipc* ipc, CtlServer* server);

  /// The function names it serves, in the order in which they are to be registered.
  static std::vector<std::string_view> functionNames();

  void MessageSentSuccessfully(ipc::messages::BaseMessage& message, bool& flag) override;

  /// The daemon sends no requests that expect an answer: ignores it and returns true.
  bool HandleResponse(ipc::messages::BaseRequestMessage& request,
                      ipc::messages::BaseResponseMessage& response, bool& flag) override;

  /// Carries out one request. A request that is answered gets a response with `statusCode` 0 or 1
  /// and the `payload` that its operation filled, unless its `responseExpected` is false.
  /// @return true, or whether the response could be sent
  bool HandleRequest(ipc::messages::BaseRequestMessage& request, bool& rejected) override;

  /// Whether an "ExitService" request has arrived.
  bool exitRequested() const { return exitFlag_; }

 private:
  struct Call;
  struct Row;
  static const Row kRows[];

  bool respond(ipc::messages::BaseRequestMessage& request, bool succeeded,
               const variant::Variant& payload);

  CtlServer* server_;
  bool exitFlag_ = false;
};

}  // namespace kova::ctlserver
