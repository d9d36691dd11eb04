#include "Transfer.h"

#include <strings.h>

#include <functional>

#include "Client.h"
#include "Output.h"
#include "Progress.h"
#include "Text.h"
#include "TransferFollower.h"
#include "kova/messages/Events.h"

namespace kova::ctl {
namespace {

using ipc::messages::BaseRequestMessage;
using ipc::messages::EventTransferRequestStatus;
using ipc::messages::EventUpdateFirmwareFailure;

constexpr std::uint32_t kGraceMs = 2000;
// Longer than the camera's longest time limit for a tool.
constexpr std::uint32_t kToolsMs = 2000 * 1000;
// How long the event may still take to arrive after the record has disappeared.
constexpr std::uint32_t kLastEventMs = 500;
// The camera requires a sender, to which it sends its events, and queues events for absent
// endpoints. A shared name that no process owns keeps them in one bounded queue instead of one per
// process.
constexpr const char* kAbsentEndpoint = "client.kovactl";

// Records the event that ends the transfer of a request.
class Outcome : public ipc::BaseHandler {
 public:
  explicit Outcome(std::uint64_t requestId) : BaseHandler("kovactl", nullptr), id_(requestId) {}

  bool HandleRequest(BaseRequestMessage& request, bool&) override {
    const std::string function = request.functionName();
    if (function == EventTransferRequestStatus::kName) {
      EventTransferRequestStatus event(request);
      note(event.requestId(), event.status());
    } else if (function == EventUpdateFirmwareFailure::kName) {
      EventUpdateFirmwareFailure event(request);
      note(event.requestId(), event.reason());
    }
    return true;
  }

  bool known() const { return !text_.empty(); }
  const std::string& text() const { return text_; }

 private:
  void note(std::uint64_t requestId, const std::string& text) {
    if (requestId == id_ && text_.empty()) {
      text_ = text;
    }
  }

  std::uint64_t id_;
  std::string text_;
};

// The outcome of a transfer as the result of a command.
variant::Variant resultOf(std::uint64_t requestId, const TransferRecord& record,
                          const std::string& outcome) {
  const bool published = !record.number.empty();
  return variant::Variant::Map{{"id", published ? record.number : variant::Variant()},
                               {"requestId", std::to_string(requestId)},
                               {"outcome", outcome},
                               {"reason", record.reason}};
}

std::string withReason(const std::string& text, const TransferRecord& record) {
  return text + (record.reason.empty() ? "" : ": " + record.reason);
}

// Advice for a certificate that libcurl could not load.
std::string adviceFor(const std::string& reason) {
  for (const char* file : {"/etc/persistent/server.pem", "/etc/persistent/controller.crt"}) {
    if (reason.find(file) != reason.npos) {
      return std::string(" The camera has no usable ") + file +
             ": adopt the camera (docs/adopting.md).";
    }
  }
  return "";
}

std::string failureOf(const TransferRecord& record) {
  if (record.outcome == "REFUSED") {
    return withReason("the camera refused the transfer", record);
  }
  if (record.outcome == "CANCELLED") {
    return record.reason == "The transfer was cancelled on request."
               ? "the transfer was cancelled"
               : withReason("the transfer was cancelled", record);
  }
  return withReason("the transfer failed: " + record.outcome, record) + adviceFor(record.reason);
}

std::string lossOf(TransferFollower::Loss loss, const TransferRecord& record) {
  switch (loss) {
    case TransferFollower::Loss::Record:
      return "the control server forgot transfer " + record.number + " while it was " +
             record.phase;
    case TransferFollower::Loss::Connection:
      return "the connection that follows transfer " + record.number + " was lost while it was " +
             record.phase;
    default:
      return "the control server ended while it was " + record.phase;
  }
}

bool isStop(ExitStatus status) {
  return status == ExitStatus::Interrupted || status == ExitStatus::Terminated;
}

// One transfer request, from sending it to reporting its outcome: join, send, find its record, and
// with --wait follow the record or, on a camera without records, wait for the event.
class Request {
 public:
  Request(const Options& options, BaseRequestMessage& request, const TransferOptions& transfer,
          std::string_view silence)
      : options_(options),
        request_(request),
        transfer_(transfer),
        silence_(silence),
        event_(request.id()),
        client_(options),
        follower_(options) {}

  ExitStatus run();

 private:
  ExitStatus join();
  ExitStatus send();
  ExitStatus wait();
  ExitStatus waitForEvent(Progress& progress);
  ExitStatus waitForEnd(Progress& progress);
  ExitStatus serve(const std::function<bool()>& done, Progress& progress, std::uint32_t timeoutMs);
  ExitStatus conclude();
  ExitStatus concludeStop(ExitStatus stopped);
  ExitStatus concludeTaken();
  ExitStatus presentAs(const std::string& outcome, std::string_view text = "") {
    return present(options_, resultOf(request_.id(), follower_.record(), outcome), text);
  }
  ExitStatus failAs(ExitStatus status, const std::string& outcome, const std::string& text) {
    presentAs(outcome);
    return fail(status, text);
  }

  const Options& options_;
  BaseRequestMessage& request_;
  const TransferOptions& transfer_;
  std::string silence_;
  Outcome event_;
  Client client_;
  TransferFollower follower_;
};

ExitStatus Request::run() {
  if (const ExitStatus joined = join(); joined != ExitStatus::Ok) {
    return joined;
  }
  if (const ExitStatus sent = send(); sent != ExitStatus::Ok) {
    return isStop(sent) ? concludeStop(sent) : sent;
  }
  if (const ExitStatus found = follower_.find(request_.id()); found != ExitStatus::Ok) {
    return concludeStop(found);
  }
  if (follower_.record().hasEnded()) {
    return conclude();
  }
  return transfer_.wait ? wait() : concludeTaken();
}

// Opens both connections before the request is sent, so that no transfer starts unobserved.
ExitStatus Request::join() {
  const ExitStatus joined =
      transfer_.wait ? client_.join(ownEndpoint(request_), &event_) : client_.join();
  return joined == ExitStatus::Ok ? follower_.open() : joined;
}

ExitStatus Request::send() {
  request_.from(transfer_.wait ? ownEndpoint(request_) : kAbsentEndpoint);
  const ExitStatus taken = client_.request(request_, options_.answerTimeoutMs()).status;
  // The event decides, even if the answer to the request was lost.
  return event_.known() ? ExitStatus::Ok : taken;
}

ExitStatus Request::wait() {
  ExitStatus waited = ExitStatus::Ok;
  {
    Progress progress(!options_.json);
    waited = follower_.found() ? waitForEnd(progress) : waitForEvent(progress);
  }
  if (isStop(waited)) {
    return concludeStop(waited);
  }
  if (waited == ExitStatus::NoAnswer) {
    return failAs(ExitStatus::Unknown, "unknown",
                  follower_.found()
                      ? "no outcome within the time-out: the camera is still " +
                            follower_.record().phase + "; \"kovactl transfers\" shows its progress"
                      : "no event within the time-out: " + silence_);
  }
  return waited == ExitStatus::Ok ? conclude() : waited;
}

ExitStatus Request::serve(const std::function<bool()>& done, Progress& progress,
                          std::uint32_t timeoutMs) {
  return client_.serveUntil(
      [&] {
        progress.turn();
        return done();
      },
      timeoutMs);
}

ExitStatus Request::waitForEvent(Progress& progress) {
  return serve([this] { return event_.known(); }, progress, transfer_.timeoutMs + kGraceMs);
}

ExitStatus Request::waitForEnd(Progress& progress) {
  const auto ended = [&] {
    follower_.Service();
    if (!follower_.record().hasEnded()) {
      progress.update(follower_.record());
    }
    return follower_.record().hasEnded() || follower_.isLost();
  };
  ExitStatus waited = serve(ended, progress, transfer_.timeoutMs + kGraceMs);
  // The time-out does not cover the tools that check and flash: keep waiting while one may run.
  if (waited == ExitStatus::NoAnswer) {
    waited = serve([&] { return ended() || !follower_.mayBeAtTools(); }, progress, kToolsMs);
  }
  if (waited != ExitStatus::Ok || follower_.record().hasEnded()) {
    return waited;
  }
  if (!follower_.isLost()) {
    return ExitStatus::NoAnswer;
  }
  const ExitStatus last = serve([this] { return event_.known(); }, progress, kLastEventMs);
  return last == ExitStatus::NoAnswer ? ExitStatus::Ok : last;
}

ExitStatus Request::conclude() {
  const TransferRecord& record = follower_.record();
  if (record.hasEnded() && record.succeeded()) {
    return presentAs(record.outcome, printable(withReason(record.outcome, record)) + "\n");
  }
  if (record.hasEnded()) {
    return failAs(ExitStatus::Refused, record.outcome, failureOf(record));
  }
  if (follower_.isLost() && !event_.known()) {
    return failAs(
        ExitStatus::Unknown, "unknown",
        lossOf(follower_.loss(), record) + ": the outcome is unknown; see the camera's log");
  }
  return event_.text() == "OK"
             ? presentAs("OK", "OK\n")
             : failAs(ExitStatus::Refused, event_.text(), "the transfer failed: " + event_.text());
}

ExitStatus Request::concludeStop(ExitStatus stopped) {
  presentAs("unknown");
  if (!follower_.found()) {
    return fail(stopped, "no transfer to cancel is known: the camera may go on with the request");
  }
  const std::string& number = follower_.record().number;
  if (!transfer_.cancel) {
    return fail(stopped, "the camera goes on with transfer " + number +
                             ": \"kovactl transfers\" shows it, \"kovactl cancel " + number +
                             "\" cancels it");
  }
  return follower_.cancel() == ExitStatus::Ok
             ? failAs(stopped, "CANCELLED", "transfer " + number + " is cancelled")
             : stopped;
}

ExitStatus Request::concludeTaken() {
  const std::string text = follower_.found()
                               ? "The camera accepted transfer " + follower_.record().number +
                                     "; \"kovactl transfers\" shows its progress.\n"
                               : "The camera accepted request " + std::to_string(request_.id()) +
                                     "; use --wait to see its outcome.\n";
  return presentAs("accepted", text);
}

// The camera supports only HTTP and HTTPS.
std::string uriFault(const std::string& uri) {
  for (const std::string_view scheme : {"http://", "https://"}) {
    if (strncasecmp(uri.c_str(), scheme.data(), scheme.size()) == 0 && uri.size() > scheme.size()) {
      return "";
    }
  }
  return "\"" + uri +
         "\" is not a URI that the camera can use: write http://HOST/PATH or "
         "https://HOST/PATH";
}

}  // namespace

std::shared_ptr<TransferOptions> addTransferOptions(CommandLine& line, std::uint32_t defaultMs,
                                                    std::string_view silence) {
  auto transfer = std::make_shared<TransferOptions>();
  transfer->timeoutMs = defaultMs;
  line.duration("--timeout", transfer->timeoutMs,
                "How long the camera may take (" + std::to_string(defaultMs / 1000) + "s)");
  line.flag("--wait", transfer->wait, "Show the progress and wait for the outcome");
  line.flag("--cancel", transfer->cancel, "Cancel the transfer on Ctrl-C; needs --wait");
  line.footer("Older cameras report only the outcome, by an event. No event: " +
              std::string(silence) + ". --wait then ends with status 5.");
  return transfer;
}

ExitStatus runTransfer(const Options& options, BaseRequestMessage& request,
                       const TransferOptions& transfer, std::string_view silence) {
  if (const std::string fault = uriFault(request.find("uri")->toText()); !fault.empty()) {
    return fail(ExitStatus::Usage, fault);
  }
  if (transfer.cancel && !transfer.wait) {
    return fail(ExitStatus::Usage, "--cancel needs --wait");
  }
  return Request(options, request, transfer, silence).run();
}

}  // namespace kova::ctl
