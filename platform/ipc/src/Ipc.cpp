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
  return guarded(__func__,
                 [&] { return connection_->join(endpoint, receiveBroadcasts, transactions); });
}

bool Ipc::AddHandler(const std::string& functionName, BaseHandler* handler) {
  return guarded(__func__, [&] { return connection_->AddHandler(functionName, handler); });
}

Objects& Ipc::objects() {
  return connection_->objects();
}

bool Ipc::Service(unsigned timeoutMs) {
  return guarded(__func__, [&] { return connection_->Service(timeoutMs); });
}

bool Ipc::SendRequest(messages::BaseRequestMessage& request) {
  return guarded(__func__, [&] { return connection_->send(request); });
}

bool Ipc::SendResponse(messages::BaseRequestMessage& request,
                       messages::BaseResponseMessage& response) {
  return guarded(__func__, [&] { return connection_->respond(request, response); });
}

bool Ipc::flush() {
  return guarded(__func__, [&] { return connection_->flush(); });
}

bool Ipc::isPresent(const std::string& endpoint) const {  // kept: 15
  return guarded("IsPresent", [&] { return connection_->isPresent(endpoint); });
}

}  // namespace kova::ipc
