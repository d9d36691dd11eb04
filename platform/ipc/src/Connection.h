#pragma once

#include <memory>
#include <string>

#include "Incoming.h"
#include "ObjectServer.h"
#include "Outgoing.h"
#include "SdBus.h"
#include "kova/ipc/Ipc.h"

namespace kova::ipc {

/// The state behind Ipc: the handlers, which may be added before the bus is joined, and the session
/// on the bus.
class Ipc::Connection {
 public:
  bool AddHandler(const std::string& functionName, BaseHandler* handler);
  bool join(const std::string& endpoint, bool receiveBroadcasts, TransactionsHandler* transactions);
  bool Service(unsigned timeoutMs);
  bool send(messages::BaseRequestMessage& request);
  bool respond(messages::BaseRequestMessage& request, messages::BaseResponseMessage& response);
  bool flush();
  bool isPresent(const std::string& endpoint) const;
  Objects& objects() { return objects_; }

 private:
  struct Session {
    Session(BusPtr opened, const std::string& endpoint, const Incoming::Handlers& handlers,
            TransactionsHandler* transactions, ObjectServer& published)
        : bus(std::move(opened)),
          incoming(bus.get(), endpoint, handlers),
          outgoing(bus.get(), endpoint, transactions),
          objects(published) {}
    ~Session() { objects.leave(); }
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    BusPtr bus;  ///< holds callbacks into the members below; not processed once they are destroyed
    Incoming incoming;
    Outgoing outgoing;
    ObjectServer& objects;
  };

  std::unique_ptr<Session> enter(const std::string& endpoint, bool receiveBroadcasts,
                                 TransactionsHandler* transactions, std::string& error);
  /// Handles pending messages, within the limits of a pass.
  /// @return number of messages, or a negative errno value
  int handlePending();
  bool isCongested();
  bool isIdle();

  Incoming::Handlers handlers_;
  ObjectServer objects_;
  std::string endpoint_;
  bool lost_ = false;
  std::unique_ptr<Session> session_;
};

}  // namespace kova::ipc
