#include "Transfer.h"

#include <strings.h>

#include <chrono>
#include <cstdio>

#include "Client.h"
#include "Terminal.h"
#include "Text.h"
#include "kova/messages/Events.h"

namespace kova::ctl {
namespace {

using ipc::messages::BaseRequestMessage;
using ipc::messages::EventTransferRequestStatus;
using ipc::messages::EventUpdateFirmwareFailure;

constexpr std::uint32_t kGraceMs = 2000;
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

// Shows a spinner and the elapsed time if standard error is a terminal; erased on destruction.
class Spinner {
 public:
  explicit Spinner(std::string text) : text_(std::move(text)), visible_(errorIsTerminal()) {}
  ~Spinner() {
    if (visible_) {
      std::fputs("\r\x1b[K", stderr);
    }
  }
  Spinner(const Spinner&) = delete;
  Spinner& operator=(const Spinner&) = delete;

  // Draws the next state, at most ten times a second.
  void Turn() {
    constexpr char kStates[] = {'|', '/', '-', '\\'};
    const auto now = Clock::now();
    if (!visible_ || now - drawn_ < std::chrono::milliseconds(100)) {
      return;
    }
    drawn_ = now;
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(now - start_).count();
    std::fprintf(stderr, "\r%c %s  %lld s\x1b[K", kStates[state_++ % sizeof kStates], text_.c_str(),
                 static_cast<long long>(seconds));
  }

 private:
  using Clock = std::chrono::steady_clock;

  std::string text_;
  bool visible_;
  Clock::time_point start_ = Clock::now();
  Clock::time_point drawn_{};
  unsigned state_ = 0;
};

ExitStatus report(const Options& options, std::uint64_t id, std::string_view outcome,
                  std::string_view sentence) {
  if (!options.json) {
    return show(sentence);
  }
  variant::Variant line;
  line["requestId"] = id;
  line["outcome"] = outcome;
  return show(json(line) + "\n");
}

ExitStatus conclude(const Options& options, std::uint64_t id, const Outcome& outcome) {
  const ExitStatus shown =
      report(options, id, outcome.Text(), outcome.Text() == "OK" ? "OK\n" : "");
  return outcome.Text() == "OK"
             ? shown
             : fail(ExitStatus::Refused, "the transfer failed: " + outcome.Text());
}

ExitStatus sendOnly(Client& client, BaseRequestMessage& request) {
  request.from(kAbsentEndpoint);
  if (const ExitStatus joined = client.Join(); joined != ExitStatus::Ok) {
    return joined;
  }
  const ExitStatus taken = client.Request(request, client.Settings().answerTimeoutMs()).status;
  if (taken != ExitStatus::Ok) {
    return taken;
  }
  return report(client.Settings(), request.id(), "taken",
                "The camera accepted request " + std::to_string(request.id()) +
                    "; use --wait to see its outcome.\n");
}

ExitStatus sendAndWait(Client& client, BaseRequestMessage& request, std::uint32_t timeoutMs,
                       std::string_view silence) {
  Outcome outcome(request.id());
  request.from(ownEndpoint());
  if (const ExitStatus joined = client.Join(ownEndpoint(), &outcome); joined != ExitStatus::Ok) {
    return joined;
  }
  const Options& options = client.Settings();
  const ExitStatus taken = client.Request(request, options.answerTimeoutMs()).status;
  if (taken != ExitStatus::Ok && !outcome.Known()) {
    return taken;
  }
  ExitStatus waited = ExitStatus::Ok;
  {
    Spinner spinner("waiting for the camera");
    waited = client.ServeUntil(
        [&] {
          spinner.Turn();
          return outcome.Known();
        },
        timeoutMs + kGraceMs);
  }
  if (waited == ExitStatus::NoAnswer) {
    const ExitStatus shown = report(options, request.id(), "unknown", "");
    return shown != ExitStatus::Ok
               ? shown
               : fail(ExitStatus::Unknown, "no event within the time-out: " + std::string(silence));
  }
  return waited == ExitStatus::Ok ? conclude(options, request.id(), outcome) : waited;
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
  line.Flag("--wait", transfer->wait, "Wait for the outcome; only \"OK\" gives status 0");
  line.Footer("No event: " + std::string(silence) + ". --wait then ends with status 5.");
  return transfer;
}

ExitStatus runTransfer(const Options& options, BaseRequestMessage& request,
                       const TransferOptions& transfer, std::string_view silence) {
  if (const std::string fault = uriFault(request.Find("uri")->ToText()); !fault.empty()) {
    return fail(ExitStatus::Usage, fault);
  }
  Client client(options);
  return transfer.wait ? sendAndWait(client, request, transfer.timeoutMs, silence)
                       : sendOnly(client, request);
}

}  // namespace kova::ctl
