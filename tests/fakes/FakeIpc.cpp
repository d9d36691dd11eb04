#include <algorithm>
#include <map>
#include <numeric>

#include "Platform.h"
#include "kova/ipc/Handlers.h"
#include "kova/ipc/Ipc.h"

using kova::fakes::platform;

namespace kova::ipc {

namespace {

/// Records what is published and signalled, with the values that a client would see.
class RecordedObjects : public Objects {
 public:
  bool publish(const Interface& interface, PublishedObject* object) override {
    platform().bus.published.push_back({"", interface, object, nullptr});
    return true;
  }
  bool publish(const std::string& folder, const Interface& interface,
               PublishedFolder* objects) override {
    platform().bus.published.push_back({folder, interface, nullptr, objects});
    return true;
  }
  bool changed(const PublishedObject& object, const std::vector<std::size_t>& places) override {
    return signal("changed", published(&object, nullptr), 0, places);
  }
  bool changed(const PublishedFolder& objects, std::uint64_t number,
               const std::vector<std::size_t>& places) override {
    return signal("changed", published(nullptr, &objects), number, places);
  }
  bool added(const PublishedFolder& objects, std::uint64_t number) override {
    const fakes::Published* one = published(nullptr, &objects);
    std::vector<std::size_t> all(one != nullptr ? one->interface.properties.size() : 0);
    std::iota(all.begin(), all.end(), 0);
    return signal("added", one, number, all);
  }
  bool removed(const PublishedFolder& objects, std::uint64_t number) override {
    return signal("removed", published(nullptr, &objects), number, {});
  }

 private:
  static const fakes::Published* published(const PublishedObject* object,
                                           const PublishedFolder* objects) {
    const auto& all = platform().bus.published;
    const auto found = std::find_if(all.begin(), all.end(), [&](const auto& one) {
      return one.object == object && one.objects == objects;
    });
    return found != all.end() ? &*found : nullptr;
  }
  static bool signal(const char* what, const fakes::Published* one, std::uint64_t number,
                     const std::vector<std::size_t>& places) {
    if (one == nullptr || !platform().bus.signalResult) {
      return false;
    }
    fakes::Signal signal{what, one->interface.name, number};
    for (const std::size_t place : places) {
      signal.values.emplace(
          one->interface.properties.at(place).name,
          one->object != nullptr ? one->object->read(place) : one->objects->read(number, place));
    }
    platform().bus.signals.push_back(std::move(signal));
    return true;
  }
};

}  // namespace

class Ipc::Connection {
 public:
  RecordedObjects objects;
  std::string endpoint;
  std::map<std::string, BaseHandler*> handlers;
};

namespace {

std::unique_ptr<Ipc> instance;

// Reads the raw message: the accessor would repair a missing or mistyped name.
std::string functionNameOf(const variant::Variant& message) {
  const variant::Variant* name = message.find("functionName");
  return name != nullptr ? name->toText() : std::string();
}

// D-Bus specification, "Bus names".
bool isEndpoint(const std::string& name) {
  constexpr char kLetters[] = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_-.";
  return !name.empty() && name.size() < 250 && name.find_first_not_of(kLetters) == name.npos &&
         name.front() != '.' && name.back() != '.' && name.find("..") == name.npos;
}

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
  if (!platform().bus.initResult || !connection_->endpoint.empty()) {
    return false;
  }
  connection_->endpoint = endpoint;
  return true;
}

bool Ipc::AddHandler(const std::string& functionName, BaseHandler* handler) {
  if (handler == nullptr) {
    return false;
  }
  platform().note("Ipc::AddHandler \"" + functionName + "\" " + handler->name());
  return connection_->handlers.emplace(functionName, handler).second && platform().bus.addResult;
}

Objects& Ipc::objects() {
  return connection_->objects;
}

bool Ipc::Service(unsigned timeoutMs) {
  platform().note("Ipc::Service " + std::to_string(timeoutMs));
  auto& bus = platform().bus;
  if (connection_->endpoint.empty()) {
    return false;
  }
  for (; !bus.pending.empty(); bus.pending.pop_front()) {
    messages::BaseRequestMessage request(bus.pending.front());
    const std::string name = functionNameOf(request);
    auto found = connection_->handlers.find(name);
    if (found == connection_->handlers.end()) {
      found = connection_->handlers.find("");
    }
    bool rejected = found == connection_->handlers.end();
    if (!rejected) {
      bus.handling = request.id();
      const bool handled = found->second->HandleRequest(request, rejected);
      if (!handled && !rejected) {
        bus.unhandled.push_back(name);
      }
      bus.handling.reset();
    }
    if (rejected) {
      bus.unhandled.push_back(name);
    }
  }
  return !bus.onService || bus.onService();
}

bool Ipc::SendRequest(messages::BaseRequestMessage& request) {
  if (request.from().empty()) {
    request.from(connection_->endpoint);
  }
  platform().bus.given = request;
  request.NormalizeFields();
  platform().note("Ipc::SendRequest " + request.functionName());
  if (!request.isBroadcast() && !isEndpoint(request.to())) {
    return false;
  }
  platform().bus.sent.push_back(request);
  return platform().bus.sendResult;
}

bool Ipc::SendResponse(messages::BaseRequestMessage& request,
                       messages::BaseResponseMessage& response) {
  auto& handling = platform().bus.handling;
  if (handling != request.id()) {
    return false;
  }
  handling.reset();
  response.requestId(request.id());
  response.to(request.from());
  response.from(connection_->endpoint);
  response.NormalizeFields();
  platform().note("Ipc::SendResponse");
  platform().bus.responses.emplace_back(request, response);
  return platform().bus.sendResult;
}

bool Ipc::isPresent(const std::string&) const {
  return true;
}

}  // namespace kova::ipc
