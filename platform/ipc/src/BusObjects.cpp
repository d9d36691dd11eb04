#include "kova/ipc/BusObjects.h"

#include <utility>

#include "Protocol.h"
#include "SdBus.h"
#include "Wire.h"

namespace kova::ipc {
namespace {

using variant::Variant;

constexpr char kManager[] = "org.freedesktop.DBus.ObjectManager";
constexpr char kProperties[] = "org.freedesktop.DBus.Properties";
constexpr char kInvalidAnswer[] = "kova.Error.InvalidMessage";

BusObjects::Answer answerOf(sd_bus_message* message) {
  BusObjects::Answer answer;
  answer.sender = orEmpty(sd_bus_message_get_sender(message));
  if (const sd_bus_error* error = sd_bus_message_get_error(message); error != nullptr) {
    answer.error = orEmpty(error->name);
    answer.text = orEmpty(error->message);
  } else if (!wire::decodeAnswer(message, answer.value, answer.text)) {
    answer.error = kInvalidAnswer;
  }
  return answer;
}

}  // namespace

class BusObjects::Connection {
 public:
  Connection(BusPtr bus, const std::string& endpoint)
      : bus_(std::move(bus)), name_(kNamePrefix + endpoint) {}

  /// A call; null on failure.
  MessagePtr newCall(const std::string& path, const char* interface, const char* method) {
    sd_bus_message* created = nullptr;
    sd_bus_message_new_method_call(bus_.get(), &created, name_.c_str(), path.c_str(), interface,
                                   method);
    return MessagePtr(created);
  }
  void keepTo(const std::string& uniqueName) { name_ = uniqueName; }
  bool start(const MessagePtr& call, std::uint32_t timeoutMs, Receiver receiver);
  bool follow(const std::string& path, std::function<void(const Signal&)> changed);
  bool Service(unsigned timeoutMs);

 private:
  int onAnswer(sd_bus_message* answer, sd_bus_error*);
  int onSignal(sd_bus_message* signal, sd_bus_error*);

  BusPtr bus_;
  std::string name_;
  Receiver receiver_;
  std::function<void(const Signal&)> changed_;
  // Declared last, so that they are released before the connection.
  SlotPtr call_;
  SlotPtr match_;
};

bool BusObjects::Connection::start(const MessagePtr& call, std::uint32_t timeoutMs,
                                   Receiver receiver) {
  sd_bus_slot* slot = nullptr;
  receiver_ = std::move(receiver);
  const int result =
      sd_bus_call_async(bus_.get(), &slot, call.get(), callback<&Connection::onAnswer>, this,
                        std::uint64_t{timeoutMs} * 1000);
  call_.reset(slot);
  return result >= 0;
}

int BusObjects::Connection::onAnswer(sd_bus_message* answer, sd_bus_error*) {
  // Move it out first: the receiver may start the next call.
  const Receiver receiver = std::exchange(receiver_, nullptr);
  if (receiver) {
    receiver(answerOf(answer));
  }
  return 0;
}

bool BusObjects::Connection::follow(const std::string& path,
                                    std::function<void(const Signal&)> changed) {
  const std::string rule = "type='signal',sender='" + name_ + "',path_namespace='" + path + "'";
  changed_ = std::move(changed);
  // Remove the old rule first. The bus ignores the path when it looks for the rule to remove, so it
  // could remove the new one.
  match_.reset();
  sd_bus_slot* slot = nullptr;
  const int result =
      sd_bus_add_match(bus_.get(), &slot, rule.c_str(), callback<&Connection::onSignal>, this);
  match_.reset(slot);
  return result >= 0;
}

int BusObjects::Connection::onSignal(sd_bus_message* message, sd_bus_error*) {
  // The rule restricts the sender of broadcasts only; any peer may send us a unicast signal.
  if (sd_bus_message_get_destination(message) != nullptr) {
    return 0;
  }
  Signal signal{orEmpty(sd_bus_message_get_interface(message)),
                orEmpty(sd_bus_message_get_member(message)), Variant::Array()};
  wire::decodeArguments(message, signal.arguments);
  const auto changed = changed_;  // a copy: the callback may call follow()
  changed(signal);
  return 0;
}

bool BusObjects::Connection::Service(unsigned timeoutMs) {
  const auto drainAll = [&] { return drain([&] { return sd_bus_process(bus_.get(), nullptr); }); };
  return drainOrWait(bus_.get(), timeoutMs, drainAll) >= 0;
}

BusObjects::BusObjects(std::string endpoint) : endpoint_(std::move(endpoint)) {}
BusObjects::~BusObjects() = default;

bool BusObjects::open(std::string& error) {
  return guarded(__func__, [&] {
    BusPtr bus = openBus(false, error);
    connection_ =
        bus != nullptr ? std::make_unique<Connection>(std::move(bus), endpoint_) : nullptr;
    return connection_ != nullptr;
  });
}

bool BusObjects::readAll(std::uint32_t timeoutMs, Receiver receiver) {
  return call(kObjectPath, kManager, "GetManagedObjects", timeoutMs, std::move(receiver));
}

bool BusObjects::read(const std::string& path, const std::string& interface,
                      std::uint32_t timeoutMs, Receiver receiver) {
  return guarded(__func__, [&] {
    if (connection_ == nullptr) {
      return false;
    }
    const MessagePtr call = connection_->newCall(path, kProperties, "GetAll");
    return sd_bus_message_append(call.get(), "s", interface.c_str()) >= 0 &&
           connection_->start(call, timeoutMs, std::move(receiver));
  });
}

bool BusObjects::call(const std::string& path, const std::string& interface,
                      const std::string& method, std::uint32_t timeoutMs, Receiver receiver) {
  return guarded(__func__, [&] {
    return connection_ != nullptr &&
           connection_->start(connection_->newCall(path, interface.c_str(), method.c_str()),
                              timeoutMs, std::move(receiver));
  });
}

void BusObjects::keepTo(const std::string& uniqueName) {
  if (connection_ != nullptr) {
    connection_->keepTo(uniqueName);
  }
}

bool BusObjects::follow(const std::string& path, std::function<void(const Signal&)> changed) {
  return guarded(__func__, [&] {
    return connection_ != nullptr && connection_->follow(path, std::move(changed));
  });
}

bool BusObjects::Service(unsigned timeoutMs) {
  return guarded(__func__,
                 [&] { return connection_ != nullptr && connection_->Service(timeoutMs); });
}

}  // namespace kova::ipc
