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

// One pass of Service: enough for a full round of clients, and short enough that the caller looks
// at its signals in time whatever the messages cost.
constexpr int kMaxMessages = 128;
constexpr std::uint64_t kMaxPassMs = 40;
// Answers that the bus has not taken yet; beyond that no more requests are read, so that senders
// feel it and memory stays bounded.
constexpr std::uint64_t kMaxUnsentAnswers = 256;

}  // namespace

bool Ipc::Connection::AddHandler(const std::string& functionName, BaseHandler* handler) {
  const bool added = handler != nullptr && handlers_.emplace(functionName, handler).second;
  if (!added) {
    KOVA_LOG(LOG_ERR, 0, "Unable to add a handler for \"%s\"", functionName.c_str());
  }
  return added;
}

std::unique_ptr<Ipc::Connection::Session> Ipc::Connection::Enter(const std::string& endpoint,
                                                                 bool receiveBroadcasts,
                                                                 TransactionsHandler* transactions,
                                                                 std::string& error) {
  BusPtr opened = openBus(false, error);
  if (opened == nullptr) {
    return nullptr;
  }
  auto session = std::make_unique<Session>(std::move(opened), endpoint, handlers_, transactions);
  if (!session->incoming.Serve(receiveBroadcasts, error) || !session->outgoing.Start(error)) {
    return nullptr;
  }
  const std::string name = kNamePrefix + endpoint;
  const int result =
      endpoint.empty() ? 0 : sd_bus_request_name(session->bus.get(), name.c_str(), 0);
  if (result < 0) {
    error = explain(("Unable to own the name \"" + name + "\"").c_str(), result);
    return nullptr;
  }
  return session;
}

bool Ipc::Connection::Join(const std::string& endpoint, bool receiveBroadcasts,
                           TransactionsHandler* transactions) {
  std::string error = "Already joined";
  std::unique_ptr<Session> session;
  if (session_ == nullptr) {
    session = Enter(endpoint, receiveBroadcasts, transactions, error);
  }
  if (session == nullptr) {
    KOVA_LOG(LOG_ERR, 0, "%s", error.c_str());
    return false;
  }
  session_ = std::move(session);
  endpoint_ = endpoint;
  return true;
}

bool Ipc::Connection::Send(messages::BaseRequestMessage& request) {
  if (session_ == nullptr) {
    KOVA_LOG(LOG_ERR, 0, "Unable to send \"%s\": not joined", request.functionName().c_str());
    return false;
  }
  return session_->outgoing.Send(request);
}

bool Ipc::Connection::Respond(messages::BaseRequestMessage& request,
                              messages::BaseResponseMessage& response) {
  return session_ != nullptr && session_->incoming.Respond(request, response);
}

bool Ipc::Connection::IsPresent(const std::string& endpoint) const {
  return session_ != nullptr && session_->outgoing.IsPresent(endpoint);
}

// When the bus has stopped reading, what is written only piles up here.
bool Ipc::Connection::IsCongested() const {
  std::uint64_t unsent = 0;
  if (sd_bus_get_n_queued_write(session_->bus.get(), &unsent) < 0 || unsent <= kMaxUnsentAnswers) {
    return false;
  }
  pollfd socket{sd_bus_get_fd(session_->bus.get()), POLLOUT, 0};
  return poll(&socket, 1, 0) == 0;
}

int Ipc::Connection::Drain() {
  const std::uint64_t deadline = utils::nowMs() + kMaxPassMs;
  int handled = 0;
  while (handled < kMaxMessages && !IsCongested()) {
    const int result = sd_bus_process(session_->bus.get(), nullptr);
    if (result == 0 || result == -EBUSY) {  // busy: called from within a handler
      break;
    }
    if (result < 0) {
      return result;
    }
    ++handled;
    if (utils::nowMs() >= deadline) {
      break;
    }
  }
  return handled;
}

bool Ipc::Connection::Service(unsigned timeoutMs) {
  if (session_ == nullptr || lost_) {
    return false;
  }
  int handled = Drain();
  if (handled == 0 && timeoutMs > 0) {
    // A signal or a failure ends the wait early; the next look at the connection tells which.
    static_cast<void>(sd_bus_wait(session_->bus.get(), std::uint64_t{timeoutMs} * 1000));
    handled = Drain();
  }
  if (handled < 0) {
    KOVA_LOG(LOG_ERR, -handled, "Lost the connection to the bus");
    lost_ = true;
  }
  return !lost_;
}

}  // namespace kova::ipc
