#include "kova/ipc/BusMonitor.h"

#include <algorithm>
#include <map>
#include <set>
#include <utility>

#include "BusNames.h"
#include "Protocol.h"
#include "SdBus.h"
#include "Wire.h"

namespace kova::ipc {
namespace {

constexpr char kDriver[] = "org.freedesktop.DBus";
constexpr char kDriverPath[] = "/org/freedesktop/DBus";

}  // namespace

class BusMonitor::Connection {
 public:
  bool open(std::string& error);
  bool Service(unsigned timeoutMs, const std::function<void(const SeenMessage&)>& sink);

 private:
  using Sink = std::function<void(const SeenMessage&)>;
  /// Caller's unique name and serial of the call, which together match an answer to its call.
  using CallId = std::pair<std::string, std::uint64_t>;
  using Calls = std::map<CallId, std::string>;
  using Owners = std::map<std::string, std::string>;  ///< unique names by endpoint

  void learnOwner(const std::string& endpoint);
  bool becomeMonitor(std::string& error);
  int process(const Sink& sink);
  void see(sd_bus_message* message, const Sink& sink);
  void seeOwnerChange(sd_bus_message* signal);
  bool seeCall(sd_bus_message* call);
  bool seeAnswer(sd_bus_message* answer);
  static bool mayAnswer(const Calls::value_type& call, const std::string& sender);
  std::string ownerOf(const char* busName) const;
  void forget(const std::string& unique);
  /// The endpoint's name if known, else the bus name.
  std::string readable(const char* busName) const;

  BusPtr bus_;
  Owners owners_;
  Calls calls_;  ///< not answered yet, with the unique name of the callee, "" if unknown
};

bool BusMonitor::Connection::open(std::string& error) {
  bus_ = openBus(true, error);
  std::set<std::string> endpoints;
  if (bus_ == nullptr || !listEndpoints(bus_.get(), endpoints, error)) {
    return false;
  }
  for (const auto& endpoint : endpoints) {
    learnOwner(endpoint);
  }
  return becomeMonitor(error);
}

void BusMonitor::Connection::learnOwner(const std::string& endpoint) {
  sd_bus_message* answered = nullptr;
  sd_bus_call_method(bus_.get(), kDriver, kDriverPath, kDriver, "GetNameOwner", nullptr, &answered,
                     "s", (kNamePrefix + endpoint).c_str());
  const MessagePtr answer(answered);
  const char* owner = nullptr;
  // The name may have vanished since it was listed.
  if (answer != nullptr && sd_bus_message_read(answer.get(), "s", &owner) > 0) {
    owners_.emplace(endpoint, owner);
  }
}

bool BusMonitor::Connection::becomeMonitor(std::string& error) {
  const int result =
      sd_bus_call_method(bus_.get(), kDriver, kDriverPath, "org.freedesktop.DBus.Monitoring",
                         "BecomeMonitor", nullptr, nullptr, "asu", 0, 0U);
  return succeeded(result, "Unable to monitor the bus", error);
}

std::string BusMonitor::Connection::readable(const char* busName) const {
  const std::string name = orEmpty(busName);
  const auto known = std::ranges::find(owners_, name, &Owners::value_type::second);
  if (known != owners_.end()) {
    return known->first;
  }
  const std::string endpoint = endpointOf(busName);
  return endpoint.empty() ? name : endpoint;
}

std::string BusMonitor::Connection::ownerOf(const char* busName) const {
  const std::string name = orEmpty(busName);
  const auto owner = owners_.find(endpointOf(busName));
  return name.starts_with(':') ? name : owner != owners_.end() ? owner->second : "";
}

void BusMonitor::Connection::forget(const std::string& unique) {
  calls_.erase(calls_.lower_bound({unique, 0}), calls_.upper_bound({unique, UINT64_MAX}));
}

void BusMonitor::Connection::seeOwnerChange(sd_bus_message* signal) {
  const char* name = nullptr;
  const char* owner = nullptr;
  // A monitor also sees forged signals, which the bus delivers to nobody else.
  if (orEmpty(sd_bus_message_get_sender(signal)) != kDriver ||
      !readOwnerChange(signal, name, owner)) {
    return;
  }
  if (*name == ':' && *owner == '\0') {
    forget(name);
    return;
  }
  const std::string endpoint = endpointOf(name);
  if (endpoint.empty()) {
    return;
  }
  if (*owner == '\0') {
    owners_.erase(endpoint);
  } else {
    owners_[endpoint] = owner;
  }
}

bool BusMonitor::Connection::seeCall(sd_bus_message* call) {
  std::uint64_t serial{};
  if (sd_bus_message_is_method_call(call, kInterface, kSend) <= 0 ||
      sd_bus_message_get_cookie(call, &serial) < 0) {
    return false;
  }
  if (sd_bus_message_get_expect_reply(call) > 0) {
    calls_.insert_or_assign({orEmpty(sd_bus_message_get_sender(call)), serial},
                            ownerOf(sd_bus_message_get_destination(call)));
  }
  return true;
}

bool BusMonitor::Connection::seeAnswer(sd_bus_message* answer) {
  std::uint64_t serial{};
  if (sd_bus_message_get_reply_cookie(answer, &serial) < 0) {
    return false;
  }
  const auto call = calls_.find({orEmpty(sd_bus_message_get_destination(answer)), serial});
  if (call == calls_.end() || !mayAnswer(*call, orEmpty(sd_bus_message_get_sender(answer)))) {
    return false;
  }
  calls_.erase(call);
  return true;
}

// The bus itself answers calls to endpoints that are absent, leave, or must not be called.
bool BusMonitor::Connection::mayAnswer(const Calls::value_type& call, const std::string& sender) {
  return sender == kDriver || call.second.empty() || sender == call.second;
}

void BusMonitor::Connection::see(sd_bus_message* message, const Sink& sink) {
  SeenMessage seen{};
  if (seeCall(message)) {
    seen.kind = SeenMessage::Kind::Call;
  } else if (seeAnswer(message)) {
    const sd_bus_error* error = sd_bus_message_get_error(message);
    seen.kind = error != nullptr ? SeenMessage::Kind::Error : SeenMessage::Kind::Answer;
    seen.error = error != nullptr ? orEmpty(error->name) + ": " + orEmpty(error->message) : "";
  } else if (sd_bus_message_is_signal(message, kInterface, kBroadcast) > 0) {
    seen.kind = SeenMessage::Kind::Broadcast;
  } else {
    if (sd_bus_message_is_signal(message, kDriver, "NameOwnerChanged") > 0) {
      seeOwnerChange(message);
    }
    return;
  }
  seen.sender = readable(sd_bus_message_get_sender(message));
  seen.destination = readable(sd_bus_message_get_destination(message));
  std::string reason;
  if (seen.kind != SeenMessage::Kind::Error && !wire::decode(message, seen.body, reason)) {
    seen.body.Free();
  }
  sink(seen);
}

int BusMonitor::Connection::process(const Sink& sink) {
  sd_bus_message* taken = nullptr;
  const int result = sd_bus_process(bus_.get(), &taken);
  const MessagePtr message(taken);
  if (message != nullptr) {
    see(message.get(), sink);
  }
  return result;
}

bool BusMonitor::Connection::Service(unsigned timeoutMs, const Sink& sink) {
  const auto drainAll = [&] { return drain([&] { return process(sink); }); };
  return drainOrWait(bus_.get(), timeoutMs, drainAll) >= 0;
}

BusMonitor::BusMonitor() = default;
BusMonitor::~BusMonitor() = default;

bool BusMonitor::open(std::string& error) {  // kept: 15
  return guarded("Open", [&] {
    connection_ = std::make_unique<Connection>();
    if (!connection_->open(error)) {
      connection_.reset();
    }
    return connection_ != nullptr;
  });
}

bool BusMonitor::Service(unsigned timeoutMs, const std::function<void(const SeenMessage&)>& sink) {
  return guarded(__func__,
                 [&] { return connection_ != nullptr && connection_->Service(timeoutMs, sink); });
}

}  // namespace kova::ipc
