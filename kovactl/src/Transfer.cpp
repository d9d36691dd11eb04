#include "Transfer.h"

#include "Answer.h"
#include "Client.h"
#include "Spinner.h"
#include "Text.h"
#include "kova/messages/Events.h"

namespace kova::ctl {
namespace {

using ipc::messages::BaseRequestMessage;
using ipc::messages::EventTransferRequestStatus;
using ipc::messages::EventUpdateFirmwareFailure;

constexpr std::uint32_t kGraceMs = 2000;
// The camera insists on a sender for its events. Events for this one, which nobody ever is, wait in
// one bounded queue there instead of in a new one for each process.
constexpr const char* kNobody = "client.kovactl";

// Waits for the event that ends the transfer of one request.
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

Exit report(const Options& options, std::uint64_t id, std::string_view outcome,
            std::string_view sentence) {
  if (!options.json) {
    return show(sentence);
  }
  variant::Variant line;
  line["requestId"] = id;
  line["outcome"] = outcome;
  return show(json(line) + "\n");
}

Exit conclude(const Options& options, std::uint64_t id, const Outcome& outcome) {
  const Exit shown = report(options, id, outcome.Text(), outcome.Text() == "OK" ? "OK\n" : "");
  return outcome.Text() == "OK" ? shown
                                : fail(Exit::Refused, "the transfer failed: " + outcome.Text());
}

Exit sendOnly(Client& client, BaseRequestMessage& request) {
  request.from(kNobody);
  if (const Exit joined = client.Join(); joined != Exit::Ok) {
    return joined;
  }
  const Exit taken = client.Request(request, client.Settings().answerTimeoutMs()).status;
  if (taken != Exit::Ok) {
    return taken;
  }
  return report(client.Settings(), request.id(), "taken",
                "The camera has taken request " + std::to_string(request.id()) +
                    "; --wait would tell its outcome.\n");
}

Exit sendAndWait(Client& client, BaseRequestMessage& request, std::uint32_t timeoutMs,
                 std::string_view silence) {
  Outcome outcome(request.id());
  request.from(ownEndpoint());
  if (const Exit joined = client.Join(ownEndpoint(), &outcome); joined != Exit::Ok) {
    return joined;
  }
  const Options& options = client.Settings();
  const Exit taken = client.Request(request, options.answerTimeoutMs()).status;
  if (taken != Exit::Ok && !outcome.Known()) {
    return taken;
  }
  Exit waited = Exit::Ok;
  {
    Spinner spinner("waiting for the camera");
    waited = client.ServeUntil(
        [&] {
          spinner.Turn();
          return outcome.Known();
        },
        timeoutMs + kGraceMs);
  }
  if (waited == Exit::NoAnswer) {
    const Exit shown = report(options, request.id(), "unknown", "");
    return shown != Exit::Ok
               ? shown
               : fail(Exit::Unknown, "no event within the time-out: " + std::string(silence));
  }
  return waited == Exit::Ok ? conclude(options, request.id(), outcome) : waited;
}

}  // namespace

std::shared_ptr<TransferOptions> addTransferOptions(CommandLine& line, std::uint32_t defaultMs,
                                                    std::string_view silence) {
  auto transfer = std::make_shared<TransferOptions>();
  transfer->timeoutMs = defaultMs;
  line.Seconds("--timeout", transfer->timeoutMs,
               "How long the camera may take (" + std::to_string(defaultMs / 1000) + ")");
  line.Flag("--wait", transfer->wait, "Wait for the outcome; only \"OK\" gives status 0");
  line.Footer("With --wait, when no event comes until the time-out has passed (status 5):\n" +
              std::string(silence) + "\n");
  return transfer;
}

Exit runTransfer(const Options& options, BaseRequestMessage& request,
                 const TransferOptions& transfer, std::string_view silence) {
  Client client(options);
  return transfer.wait ? sendAndWait(client, request, transfer.timeoutMs, silence)
                       : sendOnly(client, request);
}

}  // namespace kova::ctl
