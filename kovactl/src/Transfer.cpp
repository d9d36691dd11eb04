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
// More than the longest time that the camera lets its tools take.
constexpr std::uint32_t kToolsMs = 2000 * 1000;
// How long the event may be under way when the record is gone already.
constexpr std::uint32_t kLastEventMs = 500;
// The camera requires a sender for its events. It queues events for an absent endpoint; one name
// that no process uses keeps them in a single bounded queue instead of one per process.
constexpr const char* kAbsentEndpoint = "client.kovactl";

// Records the event that ends the transfer of a request.
class Outcome : public ipc::BaseHandler {
 public:
  explicit Outcome(std::uint64_t requestId) : BaseHandler("kovactl", nullptr), id_(requestId) {}

  bool HandleRequest(BaseRequestMessage& request, bool&) override {
    const std::string function = request.functionName();
    if (function == EventTransferRequestStatus::kName) {
      EventTransferRequestStatus event(request);
      Note(event.requestId(), event.status());
    } else if (function == EventUpdateFirmwareFailure::kName) {
      EventUpdateFirmwareFailure event(request);
      Note(event.requestId(), event.reason());
    }
    return true;
  }

  bool Known() const { return !text_.empty(); }
  const std::string& Text() const { return text_; }

 private:
  void Note(std::uint64_t requestId, const std::string& text) {
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

std::string failureOf(const TransferRecord& record) {
  if (record.outcome == "REFUSED") {
    return withReason("the camera refused the transfer", record);
  }
  return withReason(record.outcome == "CANCELLED" ? "the transfer was cancelled"
                                                  : "the transfer failed: " + record.outcome,
                    record);
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

// One request for a transfer, from sending it to telling its outcome.
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

  ExitStatus Run();

 private:
  ExitStatus Join();
  ExitStatus Send();
  ExitStatus Wait();
  ExitStatus WaitForEvent(Progress& progress);
  ExitStatus WaitForEnd(Progress& progress);
  ExitStatus Serve(const std::function<bool()>& done, Progress& progress, std::uint32_t timeoutMs);
  ExitStatus Conclude();
  ExitStatus ConcludeStop(ExitStatus stopped);
  ExitStatus ConcludeTaken();
  ExitStatus Present(const std::string& outcome, std::string_view text = "") {
    return present(options_, resultOf(request_.id(), follower_.Record(), outcome), text);
  }
  ExitStatus Fail(ExitStatus status, const std::string& outcome, const std::string& text) {
    Present(outcome);
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

ExitStatus Request::Run() {
  if (const ExitStatus joined = Join(); joined != ExitStatus::Ok) {
    return joined;
  }
  if (const ExitStatus sent = Send(); sent != ExitStatus::Ok) {
    return isStop(sent) ? ConcludeStop(sent) : sent;
  }
  if (const ExitStatus found = follower_.Find(request_.id()); found != ExitStatus::Ok) {
    return ConcludeStop(found);
  }
  if (follower_.Record().HasEnded()) {
    return Conclude();
  }
  return transfer_.wait ? Wait() : ConcludeTaken();
}

// Both connections are there before the camera starts anything.
ExitStatus Request::Join() {
  const ExitStatus joined = transfer_.wait ? client_.Join(ownEndpoint(), &event_) : client_.Join();
  return joined == ExitStatus::Ok ? follower_.Open() : joined;
}

ExitStatus Request::Send() {
  request_.from(transfer_.wait ? ownEndpoint() : kAbsentEndpoint);
  const ExitStatus taken = client_.Request(request_, options_.answerTimeoutMs()).status;
  return event_.Known() ? ExitStatus::Ok : taken;
}

ExitStatus Request::Wait() {
  ExitStatus waited = ExitStatus::Ok;
  {
    Progress progress(!options_.json);
    waited = follower_.Found() ? WaitForEnd(progress) : WaitForEvent(progress);
  }
  if (isStop(waited)) {
    return ConcludeStop(waited);
  }
  if (waited == ExitStatus::NoAnswer) {
    return Fail(ExitStatus::Unknown, "unknown",
                follower_.Found()
                    ? "no outcome within the time-out: the camera is still " +
                          follower_.Record().phase + "; \"kovactl transfers\" shows how it goes on"
                    : "no event within the time-out: " + silence_);
  }
  return waited == ExitStatus::Ok ? Conclude() : waited;
}

ExitStatus Request::Serve(const std::function<bool()>& done, Progress& progress,
                          std::uint32_t timeoutMs) {
  return client_.ServeUntil(
      [&] {
        progress.Turn();
        return done();
      },
      timeoutMs);
}

ExitStatus Request::WaitForEvent(Progress& progress) {
  return Serve([this] { return event_.Known(); }, progress, transfer_.timeoutMs + kGraceMs);
}

ExitStatus Request::WaitForEnd(Progress& progress) {
  const auto ended = [&] {
    follower_.Service();
    if (!follower_.Record().HasEnded()) {
      progress.Update(follower_.Record());
    }
    return follower_.Record().HasEnded() || follower_.Gone();
  };
  ExitStatus waited = Serve(ended, progress, transfer_.timeoutMs + kGraceMs);
  // The time-out does not cover the tools that check and flash.
  if (waited == ExitStatus::NoAnswer) {
    waited = Serve([&] { return ended() || !follower_.MayBeAtTools(); }, progress, kToolsMs);
  }
  if (waited != ExitStatus::Ok || follower_.Record().HasEnded()) {
    return waited;
  }
  if (!follower_.Gone()) {
    return ExitStatus::NoAnswer;
  }
  const ExitStatus last = Serve([this] { return event_.Known(); }, progress, kLastEventMs);
  return last == ExitStatus::NoAnswer ? ExitStatus::Ok : last;
}

ExitStatus Request::Conclude() {
  const TransferRecord& record = follower_.Record();
  if (record.HasEnded() && record.Succeeded()) {
    return Present(record.outcome, printable(withReason(record.outcome, record)) + "\n");
  }
  if (record.HasEnded()) {
    return Fail(ExitStatus::Refused, record.outcome, failureOf(record));
  }
  if (follower_.Gone() && !event_.Known()) {
    return Fail(
        ExitStatus::Unknown, "unknown",
        lossOf(follower_.Lost(), record) + ": the outcome is unknown; see the camera's log");
  }
  return event_.Text() == "OK"
             ? Present("OK", "OK\n")
             : Fail(ExitStatus::Refused, event_.Text(), "the transfer failed: " + event_.Text());
}

ExitStatus Request::ConcludeStop(ExitStatus stopped) {
  Present("unknown");
  if (!follower_.Found()) {
    return fail(stopped, "no transfer to cancel is known: the camera may go on with the request");
  }
  const std::string& number = follower_.Record().number;
  if (!transfer_.cancel) {
    return fail(stopped, "the camera goes on with transfer " + number +
                             ": \"kovactl transfers\" shows it, \"kovactl cancel " + number +
                             "\" cancels it");
  }
  return follower_.Cancel() == ExitStatus::Ok
             ? Fail(stopped, "CANCELLED", "transfer " + number + " is cancelled")
             : stopped;
}

ExitStatus Request::ConcludeTaken() {
  const std::string text = follower_.Found()
                               ? "The camera accepted transfer " + follower_.Record().number +
                                     "; \"kovactl transfers\" shows how it goes on.\n"
                               : "The camera accepted request " + std::to_string(request_.id()) +
                                     "; use --wait to see its outcome.\n";
  return Present("taken", text);
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
  line.Duration("--timeout", transfer->timeoutMs,
                "How long the camera may take (" + std::to_string(defaultMs / 1000) + "s)");
  line.Flag("--wait", transfer->wait, "Show the progress and wait for the outcome");
  line.Flag("--cancel", transfer->cancel, "Cancel the transfer on Ctrl-C; needs --wait");
  line.Footer(
      "A camera of an older version sends an event with the outcome and tells nothing else. No "
      "event: " +
      std::string(silence) + ". --wait then ends with status 5.");
  return transfer;
}

ExitStatus runTransfer(const Options& options, BaseRequestMessage& request,
                       const TransferOptions& transfer, std::string_view silence) {
  if (const std::string fault = uriFault(request.Find("uri")->ToText()); !fault.empty()) {
    return fail(ExitStatus::Usage, fault);
  }
  if (transfer.cancel && !transfer.wait) {
    return fail(ExitStatus::Usage, "--cancel needs --wait");
  }
  return Request(options, request, transfer, silence).Run();
}

}  // namespace kova::ctl
