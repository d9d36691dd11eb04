#include "TransferObjects.h"

namespace kova::ctlserver {
namespace {

using ipc::MethodError;
using ipc::PropertyValue;

constexpr char kFolder[] = "transfers";
constexpr char kInterface[] = "kova.Transfer1";

struct Row {
  const char* name;
  const char* type;
  PropertyValue (*read)(const TransferRecord& record);
  /// The least change that may affect the property.
  enum { Never, Progress, Phase, End } changes;
};

constexpr Row kRows[] = {
    {"RequestId", "t", [](auto& record) { return PropertyValue(record.requestId); }, Row::Never},
    {"Requester", "s", [](auto& record) { return PropertyValue(record.requester); }, Row::Never},
    {"Kind", "s", [](auto& record) { return PropertyValue(record.kind); }, Row::Never},
    {"Direction", "s", [](auto& record) { return PropertyValue(record.direction); }, Row::Never},
    {"Uri", "s", [](auto& record) { return PropertyValue(record.uri); }, Row::Never},
    {"File", "s", [](auto& record) { return PropertyValue(record.file); }, Row::Phase},
    {"Phase", "s", [](auto& record) { return PropertyValue(std::string(phaseName(record.phase))); },
     Row::Phase},
    {"Transferred", "t", [](auto& record) { return PropertyValue(record.transferred); },
     Row::Progress},
    {"Size", "t", [](auto& record) { return PropertyValue(record.size); }, Row::Progress},
    {"Started", "t", [](auto& record) { return PropertyValue(record.started); }, Row::Never},
    {"Ended", "t", [](auto& record) { return PropertyValue(record.ended); }, Row::End},
    {"HttpStatus", "q", [](auto& record) { return PropertyValue(record.httpStatus); }, Row::End},
    {"Outcome", "s", [](auto& record) { return PropertyValue(record.outcome); }, Row::End},
    {"Reason", "s", [](auto& record) { return PropertyValue(record.reason); }, Row::End},
};

ipc::Interface describe() {
  ipc::Interface interface {
    kInterface, {}, { "Cancel" }
  };
  for (const Row& row : kRows) {
    interface.properties.push_back({row.name, row.type, row.changes != Row::Never});
  }
  return interface;
}

/// Indices of the properties that a change up to `most` may affect.
std::vector<std::size_t> affectedBy(int most) {
  std::vector<std::size_t> places;
  for (const Row& row : kRows) {
    if (row.changes != Row::Never && row.changes <= most) {
      places.push_back(static_cast<std::size_t>(&row - kRows));
    }
  }
  return places;
}

}  // namespace

TransferObjects::TransferObjects(TransferRecords& records, ipc::Objects& bus)
    : records_(records), bus_(bus) {
  bus_.publish(kFolder, describe(), this);
  records_.observe(this);
}

TransferObjects::~TransferObjects() {
  records_.observe(nullptr);
}

PropertyValue TransferObjects::read(std::uint64_t number, std::size_t property) const {
  const TransferRecord* record = records_.find(number);
  return kRows[property].read(record != nullptr ? *record : TransferRecord());
}

MethodError TransferObjects::call(std::uint64_t number, std::size_t) {
  switch (records_.cancel(number)) {
    case TransferRecords::Cancel::Done:
      return {};
    case TransferRecords::Cancel::Unknown:
      return {"org.freedesktop.DBus.Error.UnknownObject", "There is no such transfer."};
    case TransferRecords::Cancel::Ended:
      return {"kova.Error.TransferEnded", "The transfer has ended."};
    case TransferRecords::Cancel::Finalising:
      break;
  }
  return {"kova.Error.TransferFinalising",
          "The file is being checked, installed or flashed, which is not interrupted."};
}

bool TransferObjects::signal(std::uint64_t number, PendingSignal what) {
  if (what == PendingSignal::Removal) {
    return bus_.removed(*this, number);
  }
  if (what == PendingSignal::Arrival) {
    return bus_.added(*this, number);
  }
  const TransferRecord* record = records_.find(number);
  const bool ended = record != nullptr && record->phase == TransferPhase::Ended;
  const int most = what == PendingSignal::Progress ? Row::Progress : ended ? Row::End : Row::Phase;
  return bus_.changed(*this, number, affectedBy(most));
}

void TransferObjects::transferAdded(const TransferRecord& record) {
  if (!signal(record.number, PendingSignal::Arrival)) {
    pending_[record.number] = PendingSignal::Arrival;
  }
}

void TransferObjects::transferChanged(const TransferRecord& record, TransferChange change) {
  const auto pending = pending_.find(record.number);
  if (pending != pending_.end() && pending->second == PendingSignal::Arrival) {
    return;  // the pending arrival will carry all properties
  }
  if (change == TransferChange::Progress) {
    pending_.emplace(record.number, PendingSignal::Progress);
    return;
  }
  if (signal(record.number, PendingSignal::Change)) {
    pending_.erase(record.number);
  } else {
    pending_[record.number] = PendingSignal::Change;
  }
}

void TransferObjects::transferRemoved(std::uint64_t number) {
  const auto pending = pending_.find(number);
  const bool unknown = pending != pending_.end() && pending->second == PendingSignal::Arrival;
  if (unknown || signal(number, PendingSignal::Removal)) {
    pending_.erase(number);
  } else {
    pending_[number] = PendingSignal::Removal;
  }
}

// Round robin: continues after the last transfer served, so that none starves.
void TransferObjects::service() {
  for (std::size_t count = 0; count < kProgressPerPass && !pending_.empty(); ++count) {
    auto next = pending_.upper_bound(lastServiced_);
    if (next == pending_.end()) {
      next = pending_.begin();
    }
    if (!signal(next->first, next->second)) {
      return;
    }
    lastServiced_ = next->first;
    pending_.erase(next);
  }
}

}  // namespace kova::ctlserver
