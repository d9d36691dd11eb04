#include "Connection.h"

#include <poll.h>

#include <cerrno>

#include "Protocol.h"
#include "kova/logger/Logger.h"
#include "kova/utils/Clock.h"

namespace kova::ipc {
namespace {

constexpr char kLogIdentity[] = "kova_ipc";
constexpr char kLogUnit[] = "Connection";

// A pass starts no message after this time, so that the caller handles its signals in time however
// expensive the messages are.
constexpr std::uint64_t kMaxPassMs = 40;
// Answers queued for the bus beyond which no requests are read. This slows senders down and bounds
// the memory.
constexpr std::uint64_t kMaxUnsentAnswers = 256;
// Likewise in bytes, for answers about published objects, which may be larger than those to
// requests.
constexpr std::size_t kMaxUnsentBytes = std::size_t{4} * 1024 * 1024;

}  // namespace

bool Ipc::Connection::AddHandler(const std::string& functionName, BaseHandler* handler) {
  const bool added = handler != nullptr && handlers_.emplace(functionName, handler).second;
  if (!added) {
    KOVA_LOG(LOG_ERR, 0, "Unable to add a handler for \"%s\"", functionName.c_str());
  }
  return added;
}

std::unique_ptr<Ipc::Connection::Session> Ipc::Connection::enter(const std::string& endpoint,
                                                                 bool receiveBroadcasts,
                                                                 TransactionsHandler* transactions,
                                                                 std::string& error) {
  BusPtr opened = openBus(false, error);
  if (opened == nullptr) {
    return nullptr;
  }
  auto session =
      std::make_unique<Session>(std::move(opened), endpoint, handlers_, transactions, objects_);
  if (!session->incoming.serve(receiveBroadcasts, error) || !session->outgoing.start(error) ||
      !objects_.serve(session->bus.get(), error)) {
    return nullptr;
  }
  const std::string name = kNamePrefix + endpoint;
  const bool owned =
      endpoint.empty() || succeeded(sd_bus_request_name(session->bus.get(), name.c_str(), 0),
                                    ("Unable to own the name \"" + name + "\"").c_str(), error);
  return owned ? std::move(session) : nullptr;
}

bool Ipc::Connection::join(const std::string& endpoint, bool receiveBroadcasts,
                           TransactionsHandler* transactions) {
  std::string error = "Already joined";
  std::unique_ptr<Session> session;
  if (session_ == nullptr) {
    session = enter(endpoint, receiveBroadcasts, transactions, error);
  }
  if (session == nullptr) {
    KOVA_LOG(LOG_ERR, 0, "%s", error.c_str());
    return false;
  }
  session_ = std::move(session);
  endpoint_ = endpoint;
  return true;
}

bool Ipc::Connection::send(messages::BaseRequestMessage& request) {
  if (session_ == nullptr) {
    KOVA_LOG(LOG_ERR, 0, "Unable to send \"%s\": not joined", request.functionName().c_str());
    return false;
  }
  return session_->outgoing.send(request);
}

bool Ipc::Connection::respond(messages::BaseRequestMessage& request,
                              messages::BaseResponseMessage& response) {
  return session_ != nullptr && session_->incoming.respond(request, response);
}

// The bus reads messages in order: once it answers the ping, it has received everything before.
bool Ipc::Connection::flush() {
  return session_ != nullptr && !lost_ &&
         sd_bus_call_method(session_->bus.get(), "org.freedesktop.DBus", "/org/freedesktop/DBus",
                            "org.freedesktop.DBus.Peer", "Ping", nullptr, nullptr, "") >= 0;
}

bool Ipc::Connection::isPresent(const std::string& endpoint) const {
  return session_ != nullptr && session_->outgoing.isPresent(endpoint);
}

// True if the send queue is over a limit and the socket is not writable: handling more messages
// would only add output.
bool Ipc::Connection::isCongested() {
  sd_bus* bus = session_->bus.get();
  if (unsentMessages(bus) <= kMaxUnsentAnswers && objects_.unsentBytes() <= kMaxUnsentBytes) {
    return false;
  }
  pollfd socket{sd_bus_get_fd(bus), POLLOUT, {}};
  return poll(&socket, 1, 0) == 0;
}

// Whether sd-bus has nothing to do. Polling the socket is far cheaper than sd_bus_process().
bool Ipc::Connection::isIdle() {
  sd_bus* bus = session_->bus.get();
  std::uint64_t due{};  // in microseconds; 0 while a message is read but not handled
  sd_bus_get_timeout(bus, &due);
  pollfd socket{sd_bus_get_fd(bus), static_cast<short>(sd_bus_get_events(bus)), {}};
  return due > utils::nowMs() * 1000 && poll(&socket, 1, 0) == 0;
}

int Ipc::Connection::handlePending() {
  const std::uint64_t deadline = utils::nowMs() + kMaxPassMs;
  return drain([&] {
    if (isCongested() || utils::nowMs() >= deadline) {
      return 0;
    }
    objects_.beginMessage();
    const int result = sd_bus_process(session_->bus.get(), nullptr);
    return result != -EBUSY ? result : 0;  // -EBUSY: reentered from a handler
  });
}

bool Ipc::Connection::Service(unsigned timeoutMs) {
  if (session_ == nullptr || lost_) {
    return false;
  }
  if (timeoutMs == 0 && isIdle()) {
    return true;
  }
  const auto drainAll = [this] { return handlePending(); };
  const int handled = drainOrWait(session_->bus.get(), timeoutMs, drainAll);
  if (handled < 0) {
    KOVA_LOG(LOG_ERR, -handled, "Lost the connection to the bus");
    lost_ = true;
  }
  return !lost_;
}

}  // namespace kova::ipc
