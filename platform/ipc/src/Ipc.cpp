#include "kova/ipc/Ipc.h"

#include "Connection.h"
#include "SdBus.h"

namespace kova::ipc {
namespace {

std::unique_ptr<Ipc>& instance() {
  static std::unique_ptr<Ipc> held;
  return held;
}

}  // namespace

Ipc* Ipc::GetInstance() {
  return guarded<Ipc*>(__func__, nullptr, [] {
    if (instance() == nullptr) {
      instance() = std::make_unique<Ipc>();
    }
    return instance().get();
  });
}

void Ipc::FreeInstance() {
  instance().reset();
}

Ipc::Ipc() : connection_(std::make_unique<Connection>()) {}
Ipc::~Ipc() = default;

bool Ipc::Init(const std::string& endpoint, bool receiveBroadcasts,
               TransactionsHandler* transactions) {
  return guarded(__func__, false,
                 [&] { return connection_->Join(endpoint, receiveBroadcasts, transactions); });
}

bool Ipc::AddHandler(const std::string& functionName, BaseHandler* handler) {
  return guarded(__func__, false, [&] { return connection_->AddHandler(functionName, handler); });
}

Objects& Ipc::objects() {
  return connection_->objects();
}

bool Ipc::Service(unsigned timeoutMs) {
  return guarded(__func__, false, [&] { return connection_->Service(timeoutMs); });
}

bool Ipc::SendRequest(messages::BaseRequestMessage& request) {
  return guarded(__func__, false, [&] { return connection_->Send(request); });
}

bool Ipc::SendResponse(messages::BaseRequestMessage& request,
                       messages::BaseResponseMessage& response) {
  return guarded(__func__, false, [&] { return connection_->Respond(request, response); });
}

bool Ipc::Flush() {
  return guarded(__func__, false, [&] { return connection_->Flush(); });
}

bool Ipc::IsPresent(const std::string& endpoint) const {
  return guarded(__func__, false, [&] { return connection_->IsPresent(endpoint); });
}

}  // namespace kova::ipc
