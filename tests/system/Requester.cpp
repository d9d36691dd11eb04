#include "Requester.h"

#include <stdlib.h>

#include <stdexcept>

#include "kova/messages/Events.h"
#include "kova/messages/Requests.h"

namespace kova::system_test {

using ipc::messages::BaseRequestMessage;
using ipc::messages::EventTransferRequestStatus;
using ipc::messages::EventUpdateFirmwareFailure;
using variant::Variant;

namespace {

constexpr int kTransferMs = 20'000;
constexpr unsigned kPumpMs = 5;
constexpr int kSettleRounds = 3;

std::string functionFor(const std::string& what) {
  const bool put = what == "logo" || what == "sound";
  return std::string(what.empty() ? ipc::messages::UpdateFirmwareRequest::kName
                     : put        ? ipc::messages::PutRequest::kName
                                  : ipc::messages::GetRequest::kName);
}

}  // namespace

Requester::Requester(const Camera& camera) : BaseHandler("Requester", nullptr) {
  setenv("KOVA_BUS_ADDRESS", camera.busAddress().c_str(), 1);
  ipc_.AddHandler("", this);
  if (!ipc_.Init("client.requester", false, nullptr)) {
    throw std::runtime_error("cannot join the camera's bus");
  }
}

std::uint64_t Requester::ask(Fields fields) {
  const std::string what = fields["what"].toText();
  const std::string function = functionFor(what);
  if (what.empty()) {
    fields.erase("what");
  }
  fields.emplace("timeoutMs", kTransferMs);
  fields.emplace("functionName", function);
  fields.emplace("to", "kova_ctlserver");
  BaseRequestMessage request{Variant(std::move(fields))};
  const std::uint64_t id = request.id();
  if (!ipc_.SendRequest(request)) {
    throw std::runtime_error(function + " cannot be sent");
  }
  return id;
}

std::vector<std::string> Requester::outcomes(std::uint64_t id) const {
  const auto found = outcomes_.find(id);
  return found == outcomes_.end() ? std::vector<std::string>{} : found->second;
}

std::string Requester::outcome(std::uint64_t id, std::chrono::milliseconds limit) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  while (!outcomes_.contains(id) && std::chrono::steady_clock::now() < deadline) {
    pump(kPumpMs);
  }
  const auto all = outcomes(id);
  return all.empty() ? "" : all.front();
}

void Requester::pump(unsigned timeoutMs) {
  if (!ipc_.Service(timeoutMs)) {
    throw std::runtime_error("the connection to the camera's bus is lost");
  }
}

// Every turn of the camera's loop services all transfers, so a later transfer that has failed
// proves that earlier ones had their turns.
void Requester::settle() {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  // A request that finds the previous heat map still ending is refused without an event.
  for (int failed = 0; failed < kSettleRounds && std::chrono::steady_clock::now() < deadline;) {
    const std::uint64_t id =
        ask({{"what", "eventHeatmap"}, {"uri", "http://127.0.0.1/"}, {"filename", "heatmap_.png"}});
    failed += outcome(id, std::chrono::milliseconds(500)).empty() ? 0 : 1;
  }
}

bool Requester::HandleRequest(BaseRequestMessage& message, bool& rejected) {
  if (message.functionName() == EventTransferRequestStatus::kName) {
    EventTransferRequestStatus event(message);
    outcomes_[event.requestId()].push_back(event.status());
  } else if (message.functionName() == EventUpdateFirmwareFailure::kName) {
    EventUpdateFirmwareFailure event(message);
    outcomes_[event.requestId()].push_back(event.reason());
  } else {
    rejected = true;
  }
  return true;
}

}  // namespace kova::system_test
