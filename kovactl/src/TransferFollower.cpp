#include "TransferFollower.h"

#include <algorithm>
#include <vector>

#include "Terminal.h"

namespace kova::ctl {
namespace {

using namespace std::chrono_literals;
using variant::Variant;

constexpr auto kSearch = 1s;  // a camera may publish a transfer a little after it has accepted it
constexpr auto kHeartbeat = 1s;  // without signals: detects that the control server is gone
constexpr std::uint32_t kAnswerMs = 10000;

// Whether the called endpoint is not on the bus.
bool isAbsent(const Objects::Answer& answer) {
  return exitForError(answer.error) == ExitStatus::Unreachable &&
         answer.error != "org.freedesktop.DBus.Error.AccessDenied";
}

ExitStatus judgeCancellation(const Objects& objects, const std::string& number,
                             const Objects::Answer& answer);

}  // namespace

ExitStatus TransferFollower::find(std::uint64_t requestId) {
  constexpr unsigned kPauseMs = 50;
  const auto deadline = Clock::now() + kSearch;
  do {
    std::vector<TransferRecord> records;
    Objects::Answer answer;
    const ExitStatus asked = objects_.readTransfers(records, answer);
    if (asked != ExitStatus::Ok || !answer.error.empty()) {
      // Not a failure: a camera without records reports the outcome by an event.
      return stopRequested() ? asked : ExitStatus::Ok;
    }
    const auto found = std::ranges::find(records, requestId, &TransferRecord::requestId);
    if (found != records.end()) {
      record_ = *found;
      // A restarted control server numbers its transfers from 1 again: accept only this sender.
      objects_.bus().keepTo(answer.sender);
      follow();
      return ExitStatus::Ok;
    }
    objects_.bus().Service(kPauseMs);
  } while (Clock::now() < deadline);
  return ExitStatus::Ok;
}

void TransferFollower::follow() {
  if (!record_.hasEnded()) {
    // If the subscription fails, the heartbeat still reads the record.
    objects_.bus().follow(pathOfTransfer(record_.number),
                          [this](const auto& signal) { onSignal(signal); });
    changed_ = unconfirmed_ = true;
  }
}

// Applies the signalled properties directly: while it runs a tool, the control server answers no
// reads.
void TransferFollower::onSignal(const ipc::BusObjects::Signal& signal) {
  changed_ = unconfirmed_ = true;
  const Variant::Array& arguments = signal.arguments.items();
  if (signal.interface == "org.freedesktop.DBus.Properties" && signal.name == "PropertiesChanged" &&
      arguments.size() > 1 && arguments[0].toText() == kTransferInterface) {
    update(record_, arguments[1]);
  }
}

void TransferFollower::Service() {
  if (!objects_.bus().Service(0)) {
    loss_ = Loss::Connection;
  }
  const bool due = changed_ || Clock::now() - asked_ >= kHeartbeat;
  if (due && !asking_ && !isLost() && !record_.hasEnded()) {
    ask();
  }
}

void TransferFollower::ask() {
  changed_ = false;
  asked_ = Clock::now();
  asking_ = objects_.bus().read(pathOfTransfer(record_.number), kTransferInterface, kAnswerMs,
                                [this](const Objects::Answer& answer) { take(answer); });
}

void TransferFollower::take(const Objects::Answer& answer) {
  asking_ = false;
  if (answer.error.empty()) {
    record_ = transferRecord(record_.number, answer.value);
    unconfirmed_ = changed_;
  } else if (isUnknown(answer)) {
    loss_ = Loss::Record;
  } else if (exitForError(answer.error) == ExitStatus::Unreachable) {
    loss_ = Loss::Server;
  }
  // Any other error, such as a time-out while a tool runs, is ignored; the next heartbeat retries.
}

ExitStatus TransferFollower::cancel() {
  Objects::Answer answer;
  const ExitStatus asked =
      objects_.call(pathOfTransfer(record_.number), kTransferInterface, "Cancel", answer, true);
  if (asked == ExitStatus::Ok && isAbsent(answer)) {
    return fail(ExitStatus::Unreachable,
                "the control server has ended, and transfer " + record_.number + " with it");
  }
  return asked == ExitStatus::Ok ? judgeCancellation(objects_, record_.number, answer) : asked;
}

ExitStatus cancelTransfer(Objects& objects, const std::string& number) {
  Objects::Answer answer;
  const ExitStatus asked =
      objects.call(pathOfTransfer(number), kTransferInterface, "Cancel", answer);
  return asked == ExitStatus::Ok ? judgeCancellation(objects, number, answer) : asked;
}

namespace {

ExitStatus judgeCancellation(const Objects& objects, const std::string& number,
                             const Objects::Answer& answer) {
  if (answer.error.empty()) {
    return ExitStatus::Ok;
  }
  if (isUnknown(answer)) {
    return fail(ExitStatus::Refused,
                "the camera knows of no transfer " + number + ": \"kovactl transfers\" lists them");
  }
  if (answer.error == "kova.Error.TransferEnded") {
    return fail(ExitStatus::Refused, "transfer " + number + " has already ended");
  }
  const ExitStatus status = exitForError(answer.error);
  return status == ExitStatus::Refused
             ? fail(status, "transfer " + number + " cannot be cancelled: " + answer.text)
             : reportFailure(answer, "the answer to the cancellation", objects.host());
}

}  // namespace

}  // namespace kova::ctl
