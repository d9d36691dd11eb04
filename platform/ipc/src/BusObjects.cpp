#include "kova/ipc/BusObjects.h"

#include <utility>

#include "Protocol.h"
#include "SdBus.h"
#include "Wire.h"

namespace kova::ipc {
namespace {

constexpr int kMaxMessages = 128;

constexpr char kManager[] = "org.freedesktop.DBus.ObjectManager";
constexpr char kProperties[] = "org.freedesktop.DBus.Properties";
constexpr char kInvalidAnswer[] = "kova.Error.InvalidMessage";

std::string text(const char* maybe) {
  return maybe != nullptr ? maybe : "";
}

BusObjects::Answer answerOf(sd_bus_message* message) {
  BusObjects::Answer answer;
  if (const sd_bus_error* error = sd_bus_message_get_error(message); error != nullptr) {
    answer.error = text(error->name);
    answer.text = text(error->message);
  } else if (!wire::decodeAnswer(message, answer.value, answer.text)) {
    answer.error = kInvalidAnswer;
    answer.value.Free();
  }
  return answer;
}

}  // namespace

class BusObjects::Connection {
 public:
  Connection(BusPtr bus, const std::string& endpoint)
      : bus_(std::move(bus)), name_(kNamePrefix + endpoint) {}

  /// A call; null on failure.
  MessagePtr NewCall(const std::string& path, const char* interface, const char* method) {
    sd_bus_message* created = nullptr;
    const int result = sd_bus_message_new_method_call(bus_.get(), &created, name_.c_str(),
                                                      path.c_str(), interface, method);
    return MessagePtr(result >= 0 ? created : nullptr);
  }
  bool Start(const MessagePtr& call, std::uint32_t timeoutMs, Receiver receiver);
  bool Follow(const std::string& path, std::function<void()> changed);
  bool Service(unsigned timeoutMs);

 private:
  int OnAnswer(sd_bus_message* answer, sd_bus_error*);
  int OnSignal(sd_bus_message*, sd_bus_error*);
  int Drain();

  BusPtr bus_;
  std::string name_;
  Receiver receiver_;
  std::function<void()> changed_;
  // Released before the connection.
  SlotPtr call_;
  SlotPtr match_;
};

bool BusObjects::Connection::Start(const MessagePtr& call, std::uint32_t timeoutMs,
                                   Receiver receiver) {
  sd_bus_slot* slot = nullptr;
  receiver_ = std::move(receiver);
  const int result = call == nullptr ? -EINVAL
                                     : sd_bus_call_async(bus_.get(), &slot, call.get(),
                                                         callback<&Connection::OnAnswer>, this,
                                                         std::uint64_t{timeoutMs} * 1000);
  call_.reset(slot);
  return result >= 0;
}

int BusObjects::Connection::OnAnswer(sd_bus_message* answer, sd_bus_error*) {
  // The receiver may start the next call.
  const Receiver receiver = std::exchange(receiver_, nullptr);
  if (receiver) {
    receiver(answerOf(answer));
  }
  return 0;
}

bool BusObjects::Connection::Follow(const std::string& path, std::function<void()> changed) {
  const std::string rule = "type='signal',sender='" + name_ + "',path_namespace='" + path + "'";
  changed_ = std::move(changed);
  sd_bus_slot* slot = nullptr;
  const int result =
      sd_bus_add_match(bus_.get(), &slot, rule.c_str(), callback<&Connection::OnSignal>, this);
  match_.reset(slot);
  return result >= 0;
}

int BusObjects::Connection::OnSignal(sd_bus_message*, sd_bus_error*) {
  changed_();
  return 0;
}

int BusObjects::Connection::Drain() {
  int handled = 0;
  while (handled < kMaxMessages) {
    const int result = sd_bus_process(bus_.get(), nullptr);
    if (result <= 0) {
      return result < 0 ? result : handled;
    }
    ++handled;
  }
  return handled;
}

bool BusObjects::Connection::Service(unsigned timeoutMs) {
  int handled = Drain();
  if (handled == 0 && timeoutMs > 0) {
    // Processing the connection tells why the wait ended.
    static_cast<void>(sd_bus_wait(bus_.get(), std::uint64_t{timeoutMs} * 1000));
    handled = Drain();
  }
  return handled >= 0;
}

BusObjects::BusObjects(std::string endpoint) : endpoint_(std::move(endpoint)) {}
BusObjects::~BusObjects() = default;

bool BusObjects::Open(std::string& error) {
  return guarded(__func__, false, [&] {
    BusPtr bus = openBus(false, error);
    connection_ =
        bus != nullptr ? std::make_unique<Connection>(std::move(bus), endpoint_) : nullptr;
    return connection_ != nullptr;
  });
}

bool BusObjects::ReadAll(std::uint32_t timeoutMs, Receiver receiver) {
  return Call(kObjectPath, kManager, "GetManagedObjects", timeoutMs, std::move(receiver));
}

bool BusObjects::Read(const std::string& path, const std::string& interface,
                      std::uint32_t timeoutMs, Receiver receiver) {
  return guarded(__func__, false, [&] {
    if (connection_ == nullptr) {
      return false;
    }
    const MessagePtr call = connection_->NewCall(path, kProperties, "GetAll");
    return call != nullptr && sd_bus_message_append(call.get(), "s", interface.c_str()) >= 0 &&
           connection_->Start(call, timeoutMs, std::move(receiver));
  });
}

bool BusObjects::Call(const std::string& path, const std::string& interface,
                      const std::string& method, std::uint32_t timeoutMs, Receiver receiver) {
  return guarded(__func__, false, [&] {
    return connection_ != nullptr &&
           connection_->Start(connection_->NewCall(path, interface.c_str(), method.c_str()),
                              timeoutMs, std::move(receiver));
  });
}

bool BusObjects::Follow(const std::string& path, std::function<void()> changed) {
  return guarded(__func__, false, [&] {
    return connection_ != nullptr && connection_->Follow(path, std::move(changed));
  });
}

bool BusObjects::Service(unsigned timeoutMs) {
  return guarded(__func__, false,
                 [&] { return connection_ != nullptr && connection_->Service(timeoutMs); });
}

}  // namespace kova::ipc
