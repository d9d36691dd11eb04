#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "Exit.h"
#include "Options.h"
#include "kova/ipc/Handlers.h"
#include "kova/ipc/Ipc.h"
#include "kova/messages/BaseMessage.h"

namespace kova::ctl {

/// What became of a request.
struct Reply {
  Exit status = Exit::NoAnswer;
  /// Whether the peer sent a message back; without one it took the request and had nothing to say.
  bool answered = false;
  ipc::messages::BaseResponseMessage message{};
};

/// This program on the bus: joins it, sends one request at a time and waits for its answer.
///
/// Whatever goes wrong is said in one line on standard error where it happens, and passed on as the
/// exit status.
class Client {
 public:
  explicit Client(const Options& options);
  ~Client();
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;

  /// Joins the bus, under the name of an endpoint or, with "", without one.
  /// @param receiver gets the requests and events that arrive; may be null; not owned
  Exit Join(const std::string& endpoint = "", ipc::BaseHandler* receiver = nullptr);

  /// Sends a request, to kova_ctlserver when it names no destination, and waits for the answer. An
  /// answer whose statusCode is not 0 is a refusal.
  /// @param timeoutMs how long to wait
  /// @param refusal   added to what is said of a refusal: what it usually means; "" for nothing
  Reply Request(ipc::messages::BaseRequestMessage& request, std::uint32_t timeoutMs,
                const std::string& refusal = "");

  /// Sends a request that is never answered. Only what tells within `patienceMs` that it was not
  /// taken is a failure; silence, and a bus that goes away, are not.
  Reply RequestUnanswered(ipc::messages::BaseRequestMessage& request, std::uint32_t patienceMs);

  /// Sends a request without waiting. The destination must be there.
  Exit Post(ipc::messages::BaseRequestMessage& request);

  /// Serves the bus until `done` says so.
  /// @return Ok then; NoAnswer when the time has passed first, which is left to the caller to
  /// explain; Unreachable when the bus goes away; the stop status when a stop signal comes
  Exit ServeUntil(const std::function<bool()>& done, std::uint32_t timeoutMs);
  /// The same without a limit of time.
  Exit ServeUntil(const std::function<bool()>& done);

  const Options& Settings() const { return options_; }

 private:
  class Answers;
  Exit Send(ipc::messages::BaseRequestMessage& request, bool responseExpected);
  Exit Serve(const std::function<bool()>& done, std::uint32_t timeoutMs);
  Reply Judge(ipc::messages::BaseRequestMessage& request, const std::string& refusal);

  const Options& options_;
  std::unique_ptr<Answers> answers_;
  ipc::Ipc ipc_;
};

/// The endpoint of this process for receiving events: "client.kovactl_PID".
std::string ownEndpoint();

}  // namespace kova::ctl
