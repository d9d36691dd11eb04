#include "CtlCommandsHandler.h"

#include <utility>

#include "CtlServer.h"
#include "kova/logger/Logger.h"
#include "kova/messages/Requests.h"

namespace kova::ctlserver {
namespace {

using ipc::messages::BaseMessage;
using ipc::messages::BaseRequestMessage;
using ipc::messages::BaseResponseMessage;
using ipc::messages::ChangeDeviceSettings;
using ipc::messages::ChangeUsernamePassword;
using ipc::messages::DisableUsernamePassword;
using ipc::messages::EnableUsernamePassword;
using ipc::messages::GetRequest;
using ipc::messages::GetSystemStats;
using ipc::messages::PutRequest;
using ipc::messages::Reboot;
using ipc::messages::SaveToFlash;
using ipc::messages::StartService;
using ipc::messages::StopService;
using ipc::messages::UpdateFirmwareRequest;
using variant::Variant;

constexpr char kLogIdentity[] = "kova_ctlserver";
constexpr char kLogUnit[] = "CtlServer";

/// Treats a delay above INT_MAX as 0: it is a client's -1, and would block the daemon for weeks.
int asDelay(std::uint32_t milliseconds) {
  return std::in_range<int>(milliseconds) ? static_cast<int>(milliseconds) : 0;
}

// kept: 15
void logServiceAttempt(BaseRequestMessage& request, const char* verb, const std::string& service,
                       bool succeeded, int line = __builtin_LINE()) {
  KOVA_LOG_LINE(line, "HandleRequest", LOG_INFO, 0, "%s tried to %s %s service and %s",
                request.from().c_str(), verb, service.c_str(), succeeded ? "succeeded" : "failed");
}

}  // namespace

enum class CtlCommandsHandler::AnswerPolicy { Never, WhenExpected };

struct CtlCommandsHandler::Outcome {
  bool succeeded;
  bool responseExpected;
};

/// One request on its way through the table.
struct CtlCommandsHandler::Call {
  CtlCommandsHandler& handler;
  CtlServer& server;
  BaseRequestMessage& request;
  Variant payload;

  /// Runs an operation on the request as its message class, with the defaults of that class.
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
  AnswerPolicy answer;
  Outcome (*run)(Call& call);
};

const CtlCommandsHandler::Row CtlCommandsHandler::kRows[] = {
    {GetSystemStats::kName, AnswerPolicy::WhenExpected,
     [](Call& call) {
       return call.as<GetSystemStats>(
           [&](auto& message) { return call.server.readStats(message, call.payload); });
     }},
    {Reboot::kName, AnswerPolicy::Never,
     [](Call& call) {
       return call.as<Reboot>([&](auto& message) {
         return call.server.reboot(true, asDelay(message.delayMs()), true);
       });
     }},
    {ChangeDeviceSettings::kName, AnswerPolicy::WhenExpected,
     [](Call& call) {
       return call.as<ChangeDeviceSettings>(
           [&](auto& message) { return call.server.updateSettings(message, call.payload); });
     }},
    {UpdateFirmwareRequest::kName, AnswerPolicy::Never,
     [](Call& call) {
       return call.as<UpdateFirmwareRequest>(
           [&](auto& message) { return call.server.updateFirmware(message); });
     }},
    {GetRequest::kName, AnswerPolicy::Never,
     [](Call& call) {
       return call.as<GetRequest>([&](auto& message) { return call.server.getRequest(message); });
     }},
    {PutRequest::kName, AnswerPolicy::Never,
     [](Call& call) {
       return call.as<PutRequest>([&](auto& message) { return call.server.putRequest(message); });
     }},
    // kept: 10
    {"ResetDeviceSettings", AnswerPolicy::WhenExpected,
     [](Call& call) {
       return call.untyped([&] { return call.server.resetSettings(call.payload); });
     }},
    {SaveToFlash::kName, AnswerPolicy::WhenExpected,
     [](Call& call) {
       return call.as<SaveToFlash>(
           [&](auto& message) { return call.server.persist(message.sync()); });
     }},
    {ChangeUsernamePassword::kName, AnswerPolicy::WhenExpected,
     [](Call& call) {
       return call.as<ChangeUsernamePassword>([&](auto& message) {
         return call.server.changeUsernamePassword(message, call.payload);
       });
     }},
    {EnableUsernamePassword::kName, AnswerPolicy::WhenExpected,
     [](Call& call) {
       return call.as<EnableUsernamePassword>([&](auto& message) {
         return call.server.enableUsernamePassword(message, call.payload);
       });
     }},
    {DisableUsernamePassword::kName, AnswerPolicy::WhenExpected,
     [](Call& call) {
       return call.as<DisableUsernamePassword>([&](auto& message) {
         return call.server.disableUsernamePassword(message, call.payload);
       });
     }},
    {"ExitService", AnswerPolicy::Never,
     [](Call& call) {
       call.handler.exitFlag_ = true;
       return Outcome{};
     }},
    {"ResetToDefaults", AnswerPolicy::WhenExpected,
     [](Call& call) { return call.untyped([&] { return call.server.resetToDefaults(); }); }},
    {StartService::kName, AnswerPolicy::WhenExpected,
     [](Call& call) {
       return call.as<StartService>([&](auto& message) {
         const bool succeeded = call.server.startService(message);
         logServiceAttempt(call.request, "start", message.service(), succeeded);
         return succeeded;
       });
     }},
    {StopService::kName, AnswerPolicy::WhenExpected,
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
  if (server_->ended()) {
    return false;
  }
  const std::string name = request.functionName();
  for (const auto& row : kRows) {
    if (row.name != name) {  // kept: 9
      continue;
    }
    Call call{*this, *server_, request, {}};
    const Outcome outcome = row.run(call);
    return row.answer == AnswerPolicy::Never || !outcome.responseExpected ||
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
