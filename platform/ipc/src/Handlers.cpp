#include "kova/ipc/Handlers.h"

#include "kova/logger/Logger.h"

namespace kova::ipc {
namespace {

constexpr char kLogIdentity[] = "kova_ipc";
constexpr char kLogUnit[] = "Handlers";

}  // namespace

void BaseHandler::MessageSentSuccessfully(messages::BaseMessage&, bool&) {}

bool BaseHandler::HandleResponse(messages::BaseRequestMessage&, messages::BaseResponseMessage&,
                                 bool&) {
  return true;
}

bool CatchAllHandlerRejector::HandleRequest(messages::BaseRequestMessage& request, bool& rejected) {
  KOVA_LOG(LOG_WARNING, 0, "Rejected unknown function \"%s\" from \"%s\"",
           request.functionName().c_str(), request.from().c_str());
  rejected = true;
  return true;
}

void LogHandler::MessageSentSuccessfully(messages::BaseMessage& message, bool&) {
  KOVA_LOG(LOG_INFO, 0, "Sent %s", message.ToString().c_str());
}

bool LogHandler::HandleResponse(messages::BaseRequestMessage&,
                                messages::BaseResponseMessage& response, bool&) {
  KOVA_LOG(LOG_INFO, 0, "Response %s", response.ToString().c_str());
  return true;
}

bool LogHandler::HandleRequest(messages::BaseRequestMessage& request, bool&) {
  KOVA_LOG(LOG_INFO, 0, "Request %s", request.ToString().c_str());
  return true;
}

bool TransactionsHandler::HandleRequest(messages::BaseRequestMessage&, bool& rejected) {
  rejected = true;
  return true;
}

}  // namespace kova::ipc
