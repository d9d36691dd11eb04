#include "Client.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <limits>
#include <map>
#include <string_view>

#include "BusDiagnosis.h"
#include "Output.h"
#include "Terminal.h"
#include "Text.h"

namespace kova::ctl {
namespace {

using ipc::messages::BaseRequestMessage;
using ipc::messages::BaseResponseMessage;

constexpr unsigned kServiceSliceMs = 100;  // upper bound of the delay of a stop signal

// Whether the error means that the receiver or the bus went away before it answered.
bool isVanishing(const std::string& error) {
  constexpr std::string_view kVanished[] = {
      "org.freedesktop.DBus.Error.NoReply",
      "org.freedesktop.DBus.Error.Disconnected",
      "org.freedesktop.DBus.Error.Timeout",
  };
  return std::ranges::find(kVanished, error) != std::end(kVanished);
}

// Names the task that the control server failed to do.
std::string failureOf(BaseRequestMessage& request, std::uint64_t statusCode) {
  static const std::map<std::string, std::string> kTasks{
      {"ChangeDeviceSettings", "change the settings"},
      {"ChangeUsernamePassword", "read or change the account"},
      {"DisableUsernamePassword", "lock the password"},
      {"EnableUsernamePassword", "unlock the password"},
      {"GetSystemStats", "read the statistics"},
      {"ResetDeviceSettings", "reset the settings"},
      {"ResetToDefaults", "erase the configuration"},
      {"SaveToFlash", "save the configuration"},
      {"StartService", "start the service"},
      {"StopService", "stop the service"}};
  const auto task = kTasks.find(request.functionName());
  return task != kTasks.end() && request.to() == kServer
             ? "the camera could not " + task->second
             : "\"" + request.to() + "\" refused " + request.functionName() +
                   " or failed to carry it out (status " + std::to_string(statusCode) + ")";
}

}  // namespace

// Collects the answer to the current request.
class Client::Answers : public ipc::TransactionsHandler {
 public:
  Answers() : TransactionsHandler("kovactl", nullptr) {}

  bool HandleResponse(BaseRequestMessage& request, BaseResponseMessage& response, bool&) override {
    if (request.id() == awaited) {
      arrived = true;
      message = response;
    }
    return true;
  }
  void handleError(BaseRequestMessage& request, const std::string& name,
                   const std::string& text) override {
    if (request.id() == awaited) {
      arrived = true;
      error = name;
      errorText = text;
    }
  }
  void await(std::uint64_t id) {
    awaited = id;
    arrived = false;
    error.clear();
  }

  std::uint64_t awaited = 0;
  bool arrived = false;
  BaseResponseMessage message;
  std::string error;
  std::string errorText;
};

Client::Client(const Options& options) : options_(options), answers_(std::make_unique<Answers>()) {}

Client::~Client() = default;

ExitStatus Client::join(const std::string& endpoint, ipc::BaseHandler* receiver) {
  if (receiver != nullptr && !ipc_.AddHandler("", receiver)) {
    return fail(ExitStatus::Local, "cannot receive: " + library_log::lastProblem());
  }
  if (!ipc_.Init(endpoint, receiver != nullptr, answers_.get())) {
    return stopRequested() ? stopStatus()
                           : fail(ExitStatus::Unreachable,
                                  explainJoin(options_.host, endpoint, library_log::lastProblem()));
  }
  return ExitStatus::Ok;
}

ExitStatus Client::send(BaseRequestMessage& request, bool responseExpected) {
  if (request.to().empty()) {
    request.to(kServer);
  }
  request.responseExpected(responseExpected);
  request.queueIfDestUnavailable(false);  // fail at once if the destination is absent
  if (ipc_.SendRequest(request)) {
    return ExitStatus::Ok;
  }
  if (!request.isBroadcast() && !ipc_.isPresent(request.to())) {
    return fail(ExitStatus::Unreachable, absence(request.to()));
  }
  return fail(ExitStatus::Unreachable, "cannot send: " + library_log::lastProblem());
}

ExitStatus Client::post(BaseRequestMessage& request) {
  const ExitStatus sent = send(request, false);
  return sent != ExitStatus::Ok || ipc_.flush()
             ? sent
             : fail(ExitStatus::Unreachable, "the connection to the bus was lost");
}

Reply Client::request(BaseRequestMessage& request, std::uint32_t timeoutMs,
                      const std::string& refusal) {
  answers_->await(request.id());
  Reply reply;
  reply.status = send(request, true);
  if (reply.status != ExitStatus::Ok) {
    return reply;
  }
  reply.status = serveUntil([this] { return hasAnswer(); }, timeoutMs);
  if (reply.status == ExitStatus::NoAnswer) {
    fail(ExitStatus::NoAnswer, "no answer from \"" + request.to() + "\" to " +
                                   request.functionName() + " within " + humanSeconds(timeoutMs));
  }
  return reply.status == ExitStatus::Ok ? judge(request, refusal) : reply;
}

Client::Silence Client::requestUnanswered(BaseRequestMessage& request, std::uint32_t patienceMs) {
  answers_->await(request.id());
  Silence silence;
  silence.status = send(request, true);
  if (silence.status != ExitStatus::Ok) {
    return silence;
  }
  // The bus handles our messages in order: once it has answered the flush, it has forwarded the
  // request.
  if (!ipc_.flush()) {
    silence.status = stopRequested()
                         ? stopStatus()
                         : fail(ExitStatus::Unreachable,
                                "the connection was lost before the bus had confirmed the request: "
                                "it may not have arrived");
    return silence;
  }
  const ExitStatus waited = serve([this] { return hasAnswer(); }, patienceMs);
  if (waited == ExitStatus::Ok && !isVanishing(answers_->error)) {
    silence.status = judge(request, "").status;
    return silence;
  }
  // A machine that shuts down stops all its processes, possibly this one first.
  silence.vanished = waited != ExitStatus::NoAnswer;
  silence.status = waited == ExitStatus::Interrupted ? waited : ExitStatus::Ok;
  return silence;
}

Reply Client::judge(BaseRequestMessage& request, const std::string& refusal) {
  Reply reply;
  const std::string what = request.functionName();
  if (answers_->error == "kova.Error.UnknownFunction") {
    reply.status = fail(ExitStatus::Refused, "\"" + request.to() + "\" has no function " + what +
                                                 (refusal.empty() ? "" : ": " + refusal));
    return reply;
  }
  if (answers_->error == "org.freedesktop.DBus.Error.AccessDenied" &&
      !explainDenial(options_.host).empty()) {
    reply.status = fail(ExitStatus::Unreachable, explainDenial(options_.host));
    return reply;
  }
  if (!answers_->error.empty()) {
    reply.status = fail(exitForError(answers_->error),
                        what + " failed: " + answers_->errorText + " (" + answers_->error + ")");
    return reply;
  }
  reply.message = answers_->message;
  reply.answered = reply.message.Size() > 0;
  reply.status = ExitStatus::Ok;
  if (reply.answered && reply.message.statusCode() != 0) {
    reply.status = fail(ExitStatus::Refused, failureOf(request, reply.message.statusCode()) +
                                                 (refusal.empty() ? "" : ": " + refusal));
  }
  return reply;
}

// When the connection ends, the bus library makes up an error for the pending call. A real answer
// that arrived just before the end still counts.
bool Client::hasAnswer() const {
  return answers_->arrived && !(lost_ && isVanishing(answers_->error));
}

ExitStatus Client::serveUntil(const std::function<bool()>& done, std::uint32_t timeoutMs) {
  const ExitStatus status = serve(done, timeoutMs);
  return status == ExitStatus::Unreachable ? fail(status, "the connection to the bus was lost")
                                           : status;
}

ExitStatus Client::serve(const std::function<bool()>& done, std::uint32_t timeoutMs) {
  using Clock = std::chrono::steady_clock;
  const auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
  while (!done()) {
    if (stopRequested()) {
      return stopStatus();
    }
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
    if (left <= 0) {
      return ExitStatus::NoAnswer;
    }
    lost_ = !ipc_.Service(left < kServiceSliceMs ? static_cast<unsigned>(left) : kServiceSliceMs);
    // The call that sees the end of the connection may also have dispatched the awaited message.
    if (lost_ && !done()) {
      return stopRequested() ? stopStatus() : ExitStatus::Unreachable;
    }
  }
  return ExitStatus::Ok;
}

ExitStatus Client::serveUntil(const std::function<bool()>& done) {
  ExitStatus status = ExitStatus::NoAnswer;
  while (status == ExitStatus::NoAnswer) {
    status = serveUntil(done, std::numeric_limits<std::uint32_t>::max());
  }
  return status;
}

std::string ownEndpoint(BaseRequestMessage& request) {
  return "client.kovactl_" + std::to_string(getpid()) + "_" + std::to_string(request.id());
}

ExitStatus requestFromServer(const Options& options, ipc::messages::BaseRequestMessage& request,
                             std::string_view done, std::string_view refusal) {
  Client client(options);
  if (const ExitStatus joined = client.join(); joined != ExitStatus::Ok) {
    return joined;
  }
  const Reply reply = client.request(request, options.answerTimeoutMs(), std::string(refusal));
  return reply.status == ExitStatus::Ok ? present(options, payloadOf(reply), done) : reply.status;
}

variant::Variant payloadOf(const Reply& reply) {
  const variant::Variant* payload = reply.message.find("payload");
  return payload != nullptr ? *payload : variant::Variant();
}

}  // namespace kova::ctl
