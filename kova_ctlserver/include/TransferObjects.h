#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "TransferRecords.h"
#include "kova/ipc/Objects.h"

namespace kova::ctlserver {

/// Publishes the records of transfers on the bus: "/kova/transfers/NUMBER" with the interface
/// kova.Transfer1, see packaging/dbus/kova.Transfer1.xml.
///
/// Phase changes and ends are signalled at once; progress by service(), for at most
/// kProgressPerPass transfers per call, so that a thousand transfers cannot starve the main loop. A
/// signal that the bus refuses is retried by service(): one per transfer, with the current values.
class TransferObjects : public ipc::PublishedFolder, public TransferObserver {
 public:
  static constexpr std::size_t kProgressPerPass = 16;

  /// Observes the records and publishes them. Both must outlive this object; the endpoint must not
  /// have joined the bus yet.
  TransferObjects(TransferRecords& records, ipc::Objects& bus);
  ~TransferObjects() override;

  /// Sends pending signals; called on every pass.
  void service();

  std::vector<std::uint64_t> numbers() const override { return records_.numbers(); }
  bool has(std::uint64_t number) const override { return records_.find(number) != nullptr; }
  ipc::PropertyValue read(std::uint64_t number, std::size_t property) const override;
  ipc::MethodError call(std::uint64_t number, std::size_t method) override;

  void transferAdded(const TransferRecord& record) override;
  void transferChanged(const TransferRecord& record, TransferChange change) override;
  void transferRemoved(std::uint64_t number) override;

 private:
  /// The pending signal of a transfer. A greater value includes the lesser ones.
  enum class PendingSignal : std::uint8_t { Progress, Change, Arrival, Removal };

  bool signal(std::uint64_t number, PendingSignal what);

  TransferRecords& records_;
  ipc::Objects& bus_;
  /// At most one per record, and one per record removed while the bus refused signals.
  std::map<std::uint64_t, PendingSignal> pending_;
  std::uint64_t lastServiced_ = 0;
};

}  // namespace kova::ctlserver
