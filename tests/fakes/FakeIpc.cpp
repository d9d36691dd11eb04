#include <map>

#include "Platform.h"
#include "kova/ipc/Handlers.h"
#include "kova/ipc/Ipc.h"

using kova::fakes::platform;

namespace kova::ipc {

class Ipc::Connection {
 public:
  std::string endpoint;
  std::map<std::string, BaseHandler*> handlers;
};

namespace {

std::unique_ptr<Ipc> instance;

}  // namespace

Ipc* Ipc::GetInstance() {
  if (platform().bus.absent) {
    return nullptr;
  }
  if (instance == nullptr) {
    platform().note("Ipc::GetInstance");
    instance = std::make_unique<Ipc>();
  }
  return instance.get();
}

void Ipc::FreeInstance() {
  platform().note("Ipc::FreeInstance");
  instance.reset();
}

Ipc::Ipc() : connection_(std::make_unique<Connection>()) {}
Ipc::~Ipc() = default;

bool Ipc::Init(const std::string& endpoint, bool receiveBroadcasts,
               TransactionsHandler* transactions) {
  platform().note("Ipc::Init " + endpoint + (receiveBroadcasts ? " broadcasts" : "") +
                  (transactions != nullptr ? " transactions" : ""));
  connection_->endpoint = endpoint;
  return platform().bus.initResult;
}

bool Ipc::AddHandler(const std::string& functionName, BaseHandler* handler) {
  platform().note("Ipc::AddHandler \"" + functionName + "\" " + handler->name());
  return connection_->handlers.emplace(functionName, handler).second && platform().bus.addResult;
}

bool Ipc::Service(unsigned timeoutMs) {
  platform().note("Ipc::Service " + std::to_string(timeoutMs));
  auto& bus = platform().bus;
  for (; !bus.pending.empty(); bus.pending.pop_front()) {
    messages::BaseRequestMessage request(bus.pending.front());
    auto found = connection_->handlers.find(request.functionName());
    if (found == connection_->handlers.end()) {
      found = connection_->handlers.find("");
    }
    bool rejected = found == connection_->handlers.end();
    if (!rejected) {
      found->second->HandleRequest(request, rejected);
    }
    if (rejected) {
      bus.unhandled.push_back(request.functionName());
    }
  }
  return !bus.onService || bus.onService();
}

bool Ipc::SendRequest(messages::BaseRequestMessage& request) {
  request.NormalizeFields();
  platform().note("Ipc::SendRequest " + request.functionName());
  platform().bus.sent.push_back(request);
  return platform().bus.sendResult;
}

bool Ipc::SendResponse(messages::BaseRequestMessage& request,
                       messages::BaseResponseMessage& response) {
  response.requestId(request.id());
  response.to(request.from());
  response.NormalizeFields();
  platform().note("Ipc::SendResponse");
  platform().bus.responses.emplace_back(request, response);
  return platform().bus.sendResult;
}

const std::string& Ipc::Endpoint() const {
  return connection_->endpoint;
}

bool Ipc::IsPresent(const std::string&) const {
  return true;
}

}  // namespace kova::ipc
