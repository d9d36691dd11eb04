#include "CtlCommandsHandler.h"

#include <algorithm>
#include <limits>

#include "CtlServer.h"
#include "kova/logger/Logger.h"
#include "kova/messages/Requests.h"

namespace kova::ctlserver {
namespace {

using ipc::messages::BaseMessage;
using ipc::messages::BaseRequestMessage;
using ipc::messages::BaseResponseMessage;
using variant::Variant;

constexpr char kLogIdentity[] = "kova_ctlserver";
constexpr char kLogUnit[] = "CtlServer";

enum class Answer { Never, WhenExpected };

struct Outcome {
  bool succeeded;
  bool responseExpected;
};

/// Weeks at the longest, rather than a negative delay for what no int holds.
int asDelay(std::uint32_t milliseconds) {
  constexpr std::uint32_t kLongest = std::numeric_limits<int>::max();
  return static_cast<int>(std::min(milliseconds, kLongest));
}

void logServiceAttempt(BaseRequestMessage& request, const char* verb, const std::string& service,
                       bool succeeded) {
  KOVA_LOG_IN("HandleRequest", LOG_INFO, 0, "%s tried to %s %s service and %s",
              request.from().c_str(), verb, service.c_str(), succeeded ? "succeeded" : "failed");
}

}  // namespace

/// One request on its way through the table.
struct CtlCommandsHandler::Call {
  CtlCommandsHandler& handler;
  CtlServer& server;
  BaseRequestMessage& request;
  Variant payload;

  /// Runs an operation on the request as its own message class, whose defaults then apply.
  template <typename Message, typename Operation>
  Outcome as(Operation operation) {
    Message message(request);
    message.NormalizeFields();
    const bool succeeded = operation(message);
    return {succeeded, message.responseExpected()};
  }

  /// Runs an operation that reads no fields.
  template <typename Operation>
  Outcome untyped(Operation operation) {
    const bool succeeded = operation();
    return {succeeded, request.responseExpected()};
  }
};

struct CtlCommandsHandler::Row {
  std::string_view name;
  Answer answer;
  Outcome (*run)(Call& call);
};

using namespace ipc::messages;

const CtlCommandsHandler::Row CtlCommandsHandler::kRows[] = {
    {GetSystemStats::kName, Answer::WhenExpected,
     [](Call& call) {
       return call.as<GetSystemStats>(
           [&](auto& message) { return call.server.readStats(message, call.payload); });
     }},
    {Reboot::kName, Answer::Never,
     [](Call& call) {
       return call.as<Reboot>([&](auto& message) {
         return call.server.reboot(true, asDelay(message.delayMs()), true);
       });
     }},
    {ChangeDeviceSettings::kName, Answer::WhenExpected,
     [](Call& call) {
       return call.as<ChangeDeviceSettings>(
           [&](auto& message) { return call.server.updateSettings(message, call.payload); });
     }},
    {UpdateFirmwareRequest::kName, Answer::Never,
     [](Call& call) {
       return call.as<UpdateFirmwareRequest>(
           [&](auto& message) { return call.server.updateFirmware(message); });
     }},
    {GetRequest::kName, Answer::Never,
     [](Call& call) {
       return call.as<GetRequest>([&](auto& message) { return call.server.getRequest(message); });
     }},
    {PutRequest::kName, Answer::Never,
     [](Call& call) {
       return call.as<PutRequest>([&](auto& message) { return call.server.putRequest(message); });
     }},
    {"ResetDeviceSettings", Answer::WhenExpected,
     [](Call& call) {
       return call.untyped([&] { return call.server.resetSettings(call.payload); });
     }},
    {SaveToFlash::kName, Answer::WhenExpected,
     [](Call& call) {
       return call.as<SaveToFlash>(
           [&](auto& message) { return call.server.persist(message.sync()); });
     }},
    {ChangeUsernamePassword::kName, Answer::WhenExpected,
     [](Call& call) {
       return call.as<ChangeUsernamePassword>([&](auto& message) {
         return call.server.changeUsernamePassword(message, call.payload);
       });
     }},
    {EnableUsernamePassword::kName, Answer::WhenExpected,
     [](Call& call) {
       return call.as<EnableUsernamePassword>([&](auto& message) {
         return call.server.enableUsernamePassword(message, call.payload);
       });
     }},
    {DisableUsernamePassword::kName, Answer::WhenExpected,
     [](Call& call) {
       return call.as<DisableUsernamePassword>([&](auto& message) {
         return call.server.disableUsernamePassword(message, call.payload);
       });
     }},
    {"ExitService", Answer::Never,
     [](Call& call) {
       return call.untyped([&] {
         call.handler.exitFlag_ = true;
         return true;
       });
     }},
    {"ResetToDefaults", Answer::WhenExpected,
     [](Call& call) { return call.untyped([&] { return call.server.resetToDefaults(); }); }},
    {StartService::kName, Answer::WhenExpected,
     [](Call& call) {
       return call.as<StartService>([&](auto& message) {
         const bool succeeded = call.server.startService(message);
         logServiceAttempt(call.request, "start", message.service(), succeeded);
         return succeeded;
       });
     }},
    {StopService::kName, Answer::WhenExpected,
     [](Call& call) {
       return call.as<StopService>([&](auto& message) {
         const bool succeeded = call.server.stopService(message);
         logServiceAttempt(call.request, "stop", message.service(), succeeded);
         return succeeded;
       });
     }},
};

CtlCommandsHandler::CtlCommandsHandler(ipc::Ipc* ipc, CtlServer* server)
    : BaseHandler("CtlHandler", ipc), server_(server) {}

std::vector<std::string_view> CtlCommandsHandler::functionNames() {
  std::vector<std::string_view> names;
  for (const auto& row : kRows) {
    names.push_back(row.name);
  }
  return names;
}

void CtlCommandsHandler::MessageSentSuccessfully(BaseMessage&, bool&) {}

bool CtlCommandsHandler::HandleResponse(BaseRequestMessage&, BaseResponseMessage&, bool&) {
  return true;
}

bool CtlCommandsHandler::HandleRequest(BaseRequestMessage& request, bool&) {
  const std::string name = request.functionName();
  for (const auto& row : kRows) {
    if (row.name != name) {
      continue;
    }
    Call call{*this, *server_, request, {}};
    const Outcome outcome = row.run(call);
    return row.answer == Answer::Never || !outcome.responseExpected ||
           respond(request, outcome.succeeded, call.payload);
  }
  return true;
}

bool CtlCommandsHandler::respond(BaseRequestMessage& request, bool succeeded,
                                 const Variant& payload) {
  BaseResponseMessage response;
  response.statusCode(succeeded ? 0 : 1);
  response.payload(payload);
  return ipc()->SendResponse(request, response);
}

}  // namespace kova::ctlserver
