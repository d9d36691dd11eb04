#include "TransferFollower.h"

#include <algorithm>
#include <vector>

#include "Terminal.h"

namespace kova::ctl {
namespace {

using namespace std::chrono_literals;

constexpr auto kSearch = 1s;  // a camera may publish a transfer a little after it has accepted it
constexpr auto kHeartbeat =
    1s;  // without a signal: shows whether the control server is still there
constexpr std::uint32_t kAnswerMs = 10000;

}  // namespace

ExitStatus TransferFollower::Find(std::uint64_t requestId) {
  constexpr unsigned kPauseMs = 50;
  const auto deadline = Clock::now() + kSearch;
  do {
    std::vector<TransferRecord> records;
    Objects::Answer answer;
    const ExitStatus asked = objects_.ReadTransfers(records, answer);
    if (asked != ExitStatus::Ok || !answer.error.empty()) {
      return stopRequested() ? asked : ExitStatus::Ok;
    }
    const auto found = std::ranges::find(records, requestId, &TransferRecord::requestId);
    if (found != records.end()) {
      record_ = *found;
      Follow();
      return ExitStatus::Ok;
    }
    objects_.Bus().Service(kPauseMs);
  } while (Clock::now() < deadline);
  return ExitStatus::Ok;
}

void TransferFollower::Follow() {
  if (!record_.HasEnded()) {
    // Without signals the heartbeat remains.
    objects_.Bus().Follow(pathOfTransfer(record_.number), [this] { changed_ = behind_ = true; });
    changed_ = behind_ = true;
  }
}

void TransferFollower::Service() {
  if (!objects_.Bus().Service(0)) {
    loss_ = Loss::Connection;
  }
  const bool due = changed_ || Clock::now() - asked_ >= kHeartbeat;
  if (due && !asking_ && !Gone() && !record_.HasEnded()) {
    Ask();
  }
}

void TransferFollower::Ask() {
  changed_ = false;
  asked_ = Clock::now();
  asking_ = objects_.Bus().Read(pathOfTransfer(record_.number), kTransferInterface, kAnswerMs,
                                [this](const Objects::Answer& answer) { Take(answer); });
}

void TransferFollower::Take(const Objects::Answer& answer) {
  asking_ = false;
  if (answer.error.empty()) {
    record_ = transferRecord(record_.number, answer.value);
    behind_ = changed_;
  } else if (isUnknown(answer)) {
    loss_ = Loss::Record;
  } else if (exitForError(answer.error) == ExitStatus::Unreachable) {
    loss_ = Loss::Server;
  }
  // A control server that is busy with a tool answers late, which is no news.
}

ExitStatus TransferFollower::Cancel() {
  return cancelTransfer(objects_, record_.number, true);
}

ExitStatus cancelTransfer(Objects& objects, const std::string& number, bool patient) {
  Objects::Answer answer;
  const ExitStatus asked =
      objects.Call(pathOfTransfer(number), kTransferInterface, "Cancel", answer, patient);
  if (asked != ExitStatus::Ok || answer.error.empty()) {
    return asked;
  }
  if (isUnknown(answer)) {
    return fail(ExitStatus::Refused,
                "the camera knows of no transfer " + number + ": \"kovactl transfers\" lists them");
  }
  const ExitStatus status = exitForError(answer.error);
  return status == ExitStatus::Refused
             ? fail(status, "transfer " + number + " cannot be cancelled: " + answer.text)
             : failOn(answer, "the answer to the cancellation", objects.Host());
}

}  // namespace kova::ctl
