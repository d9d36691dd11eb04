#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "ExitStatus.h"
#include "Options.h"
#include "kova/ipc/Handlers.h"
#include "kova/ipc/Ipc.h"
#include "kova/messages/BaseMessage.h"

namespace kova::ctl {

/// The outcome of a request.
struct Reply {
  ExitStatus status = ExitStatus::NoAnswer;
  /// Whether the answer carries a message; without one we know only that the peer accepted the
  /// request.
  bool answered = false;
  ipc::messages::BaseResponseMessage message{};
};

/// A connection to the bus that sends one request at a time and waits for its answer.
///
/// Failures are reported in one line on standard error where they happen, and returned as the exit
/// status.
class Client {
 public:
  explicit Client(const Options& options);
  ~Client();
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;

  /// Joins the bus.
  /// @param endpoint the endpoint to register; "" for none
  /// @param receiver handles incoming requests and events; may be null; not owned
  ExitStatus join(const std::string& endpoint = "", ipc::BaseHandler* receiver = nullptr);

  /// Sends a request, by default to kova_ctlserver, and waits for the answer. A statusCode other
  /// than 0 is a refusal.
  /// @param refusal the usual reason for a refusal, added to its error message; may be ""
  Reply request(ipc::messages::BaseRequestMessage& request, std::uint32_t timeoutMs,
                const std::string& refusal = "");

  /// The outcome of a request that is never answered.
  struct Silence {
    ExitStatus status = ExitStatus::Ok;
    /// Whether the receiver or the bus went away, or this process was stopped, while we waited.
    bool vanished = false;
  };
  /// Sends a request that is never answered. Fails if the bus may not have received the request, on
  /// Ctrl-C, or if an error arrives within `patienceMs`. Otherwise silence, a closed bus and
  /// SIGTERM count as success.
  Silence requestUnanswered(ipc::messages::BaseRequestMessage& request, std::uint32_t patienceMs);

  /// Sends a request without waiting for an answer. The destination must be on the bus.
  ExitStatus post(ipc::messages::BaseRequestMessage& request);

  /// Serves the bus until `done` returns true.
  /// @return Ok if so; NoAnswer on time-out, which the caller reports; Unreachable if the
  /// connection is lost; stopStatus() on a stop signal
  ExitStatus serveUntil(const std::function<bool()>& done, std::uint32_t timeoutMs);
  /// The same without a time-out.
  ExitStatus serveUntil(const std::function<bool()>& done);

  const Options& options() const { return options_; }

 private:
  class Answers;
  ExitStatus send(ipc::messages::BaseRequestMessage& request, bool responseExpected);
  ExitStatus serve(const std::function<bool()>& done, std::uint32_t timeoutMs);
  bool hasAnswer() const;
  Reply judge(ipc::messages::BaseRequestMessage& request, const std::string& refusal);

  const Options& options_;
  std::unique_ptr<Answers> answers_;
  ipc::Ipc ipc_;
  bool lost_ = false;
};

/// The endpoint on which this process receives the events of a request, "client.kovactl_PID_ID":
/// process ids repeat among containers.
std::string ownEndpoint(ipc::messages::BaseRequestMessage& request);

/// Sends a request to the control server and presents the payload of its answer, as text `done`.
/// Sufficient for most commands.
/// @param refusal see Client::request
ExitStatus requestFromServer(const Options& options, ipc::messages::BaseRequestMessage& request,
                             std::string_view done, std::string_view refusal = "");

/// The payload of an answer; an empty Variant when there is none.
variant::Variant payloadOf(const Reply& reply);

}  // namespace kova::ctl
