#include "Client.h"

#include <unistd.h>

#include <chrono>
#include <limits>

#include "LibraryLog.h"
#include "StopSignals.h"
#include "Text.h"

namespace kova::ctl {
namespace {

using Clock = std::chrono::steady_clock;
using ipc::messages::BaseRequestMessage;
using ipc::messages::BaseResponseMessage;

constexpr unsigned kSliceMs = 100;  // how late a stop signal may be seen

std::string inSeconds(std::uint32_t milliseconds) {
  std::string text = variant::Variant(milliseconds / 1000.0).ToJSON();
  return text.ends_with(".0") ? text.substr(0, text.size() - 2) + " s" : text + " s";
}

}  // namespace

// What has come for the request under way.
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
  void HandleError(BaseRequestMessage& request, const std::string& name,
                   const std::string& text) override {
    if (request.id() == awaited) {
      arrived = true;
      error = name;
      errorText = text;
    }
  }
  void Await(std::uint64_t id) {
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

Exit Client::Join(const std::string& endpoint, ipc::BaseHandler* receiver) {
  if (receiver != nullptr && !ipc_.AddHandler("", receiver)) {
    return fail(Exit::Local, "cannot receive: " + library_log::lastProblem());
  }
  if (!ipc_.Init(endpoint, receiver != nullptr, answers_.get())) {
    const std::string& why = library_log::lastProblem();
    return fail(Exit::Unreachable, why.empty() ? "Unable to join the bus" : why);
  }
  return Exit::Ok;
}

Exit Client::Send(BaseRequestMessage& request, bool responseExpected) {
  if (request.to().empty()) {
    request.to(kServer);
  }
  request.responseExpected(responseExpected);
  request.queueIfDestUnavailable(false);
  if (ipc_.SendRequest(request)) {
    return Exit::Ok;
  }
  if (!request.isBroadcast() && !ipc_.IsPresent(request.to())) {
    return fail(Exit::Unreachable, "\"" + request.to() + "\" is not on the bus: is it running?");
  }
  return fail(Exit::Unreachable, "cannot send: " + library_log::lastProblem());
}

Exit Client::Post(BaseRequestMessage& request) {
  return Send(request, false);
}

Reply Client::Request(BaseRequestMessage& request, std::uint32_t timeoutMs,
                      const std::string& refusal) {
  answers_->Await(request.id());
  Reply reply;
  reply.status = Send(request, true);
  if (reply.status != Exit::Ok) {
    return reply;
  }
  reply.status = ServeUntil([this] { return answers_->arrived; }, timeoutMs);
  if (reply.status == Exit::NoAnswer) {
    fail(Exit::NoAnswer, "no answer from \"" + request.to() + "\" to " + request.functionName() +
                             " within " + inSeconds(timeoutMs));
  }
  return reply.status == Exit::Ok ? Judge(request, refusal) : reply;
}

Reply Client::RequestUnanswered(BaseRequestMessage& request, std::uint32_t patienceMs) {
  answers_->Await(request.id());
  Reply reply;
  reply.status = Send(request, true);
  if (reply.status != Exit::Ok) {
    return reply;
  }
  reply.status = Serve([this] { return answers_->arrived; }, patienceMs);
  if (reply.status == Exit::Ok) {
    return Judge(request, "");
  }
  if (reply.status == Exit::NoAnswer || reply.status == Exit::Unreachable) {
    reply.status = Exit::Ok;
  }
  return reply;
}

Reply Client::Judge(BaseRequestMessage& request, const std::string& refusal) {
  Reply reply;
  const std::string what = request.functionName();
  if (answers_->error == "kova.Error.UnknownFunction") {
    reply.status = fail(Exit::Refused, "\"" + request.to() + "\" knows no function " + what);
    return reply;
  }
  if (!answers_->error.empty()) {
    reply.status = fail(exitForError(answers_->error),
                        what + " failed: " + answers_->errorText + " (" + answers_->error + ")");
    return reply;
  }
  reply.message = answers_->message;
  // The empty answer to a request that was taken carries no id.
  reply.answered = reply.message.requestId() == request.id();
  reply.status = Exit::Ok;
  if (reply.answered && reply.message.statusCode() != 0) {
    reply.status =
        fail(Exit::Refused, "the camera refused " + what + " or failed to do it (status " +
                                std::to_string(reply.message.statusCode()) + ")" +
                                (refusal.empty() ? "" : ": " + refusal));
  }
  return reply;
}

Exit Client::ServeUntil(const std::function<bool()>& done, std::uint32_t timeoutMs) {
  const Exit status = Serve(done, timeoutMs);
  return status == Exit::Unreachable ? fail(status, "the bus has gone away") : status;
}

Exit Client::Serve(const std::function<bool()>& done, std::uint32_t timeoutMs) {
  const auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
  while (!done()) {
    if (stopRequested()) {
      return stopStatus();
    }
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
    if (left <= 0) {
      return Exit::NoAnswer;
    }
    if (!ipc_.Service(left < kSliceMs ? static_cast<unsigned>(left) : kSliceMs)) {
      return Exit::Unreachable;
    }
  }
  return Exit::Ok;
}

Exit Client::ServeUntil(const std::function<bool()>& done) {
  Exit status = Exit::NoAnswer;
  while (status == Exit::NoAnswer) {
    status = ServeUntil(done, std::numeric_limits<std::uint32_t>::max());
  }
  return status;
}

std::string ownEndpoint() {
  return "client.kovactl_" + std::to_string(getpid());
}

}  // namespace kova::ctl
