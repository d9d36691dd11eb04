#include "TransferRecords.h"

#include <algorithm>
#include <utility>

#include "DisplayText.h"
#include "kova/utils/Clock.h"

namespace kova::ctlserver {
namespace {

std::string reasonOf(const std::string& cause, const std::string& userInfo) {
  const std::string clean = withoutCredentials(cause.substr(0, kMaxCauseBytes), userInfo);
  return displayText(sentence(clean), TransferRecord::kMaxReasonBytes);
}

}  // namespace

const char* phaseName(TransferPhase phase) {
  switch (phase) {
    case TransferPhase::Preparing:
      return "preparing";
    case TransferPhase::Transferring:
      return "transferring";
    case TransferPhase::Finalising:
      return "finalising";
    case TransferPhase::Ended:
      break;
  }
  return "ended";
}

const TransferRecord* TransferRecords::find(std::uint64_t number) const {
  if (const auto entry = running_.find(number); entry != running_.end()) {
    return &entry->second.record;
  }
  const auto ended = std::ranges::find(ended_, number, &TransferRecord::number);
  return ended != ended_.end() ? &*ended : nullptr;
}

std::vector<std::uint64_t> TransferRecords::numbers() const {
  std::vector<std::uint64_t> numbers;
  for (const auto& [number, running] : running_) {
    numbers.push_back(number);
  }
  for (const TransferRecord& record : ended_) {
    numbers.push_back(record.number);
  }
  std::ranges::sort(numbers);
  return numbers;
}

TransferRecords::Cancel TransferRecords::cancel(std::uint64_t number) {
  const TransferRecord* record = find(number);
  if (record == nullptr) {
    return Cancel::Unknown;
  }
  if (record->phase == TransferPhase::Ended) {
    return Cancel::Ended;
  }
  // A record without a run to end gets the same answer: nothing of it can be interrupted.
  const bool finalizing = record->phase == TransferPhase::Finalising;
  if (finalizing || canceller_ == nullptr || !canceller_->cancelTransfer(number)) {
    return Cancel::Finalising;
  }
  return Cancel::Done;
}

std::uint64_t TransferRecords::begin(const TransferRecord& facts) {
  const std::uint64_t number = ++lastNumber_;
  Running& running = running_[number];
  TransferRecord& record = running.record;
  record.number = number;
  record.requestId = facts.requestId;
  record.requester = displayText(facts.requester, TransferRecord::kMaxNameBytes);
  record.kind = facts.kind;
  record.direction = facts.direction;
  record.uri = displayText(withoutUserInfo(facts.uri), TransferRecord::kMaxUriBytes);
  record.file = displayText(facts.file, TransferRecord::kMaxFileBytes);
  record.started = utils::wallClockUs();
  // A cause is truncated to kMaxCauseBytes, so it cannot contain longer user information.
  if (const auto userInfo = userInfoOf(facts.uri); userInfo.size() < kMaxCauseBytes) {
    running.userInfo = userInfo;
  }
  running.reportedMs = utils::nowMs();
  if (observer_ != nullptr) {
    observer_->transferAdded(record);
  }
  return number;
}

void TransferRecords::setFile(std::uint64_t number, const std::string& file) {
  if (Running* const found = running(number)) {
    found->record.file = displayText(file, TransferRecord::kMaxFileBytes);
  }
}

void TransferRecords::enter(std::uint64_t number, TransferPhase phase) {
  Running* const found = running(number);
  if (found == nullptr || phase <= found->record.phase || phase == TransferPhase::Ended) {
    return;
  }
  found->record.phase = phase;
  report(*found, TransferChange::Phase);
}

void TransferRecords::progress(std::uint64_t number, std::uint64_t transferred,
                               std::uint64_t size) {
  if (Running* const found = running(number)) {
    found->record.transferred = transferred;
    found->record.size = size;
    found->hasUnreported = true;
  }
}

void TransferRecords::end(std::uint64_t number, const std::string& outcome,
                          const std::string& reason, int httpStatus) {
  Running* const found = running(number);
  if (found == nullptr) {
    return;
  }
  TransferRecord& record = found->record;
  record.phase = TransferPhase::Ended;
  record.ended = utils::wallClockUs();
  record.httpStatus = static_cast<std::uint16_t>(std::clamp(httpStatus, 0, 0xFFFF));
  record.outcome = outcome;
  record.reason = reasonOf(reason, found->userInfo);
  // Move the record before the observer is notified: find() must return the ended one.
  auto node = running_.extract(number);
  keepEnded(std::move(node.mapped().record));
}

void TransferRecords::keepEnded(TransferRecord record) {
  ended_.push_back(std::move(record));
  if (observer_ != nullptr) {
    observer_->transferChanged(ended_.back(), TransferChange::End);
  }
  if (ended_.size() <= kMaxEnded) {
    return;
  }
  const std::uint64_t oldest = ended_.front().number;
  ended_.pop_front();
  if (observer_ != nullptr) {
    observer_->transferRemoved(oldest);
  }
}

void TransferRecords::flush() {
  for (auto& [number, running] : running_) {
    if (running.hasUnreported && utils::nowMs() - running.reportedMs >= kProgressMs) {
      report(running, TransferChange::Progress);
    }
  }
}

TransferRecords::Running* TransferRecords::running(std::uint64_t number) {
  const auto entry = running_.find(number);
  return entry != running_.end() ? &entry->second : nullptr;
}

void TransferRecords::report(Running& running, TransferChange change) {
  running.hasUnreported = false;
  running.reportedMs = utils::nowMs();
  if (observer_ != nullptr) {
    observer_->transferChanged(running.record, change);
  }
}

}  // namespace kova::ctlserver
