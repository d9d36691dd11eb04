#pragma once

#include <map>
#include <set>
#include <string>

#include "TransferRecords.h"
#include "TransferRun.h"
#include "multihttp.h"

namespace kova::ctlserver {

class BaseTransferTask;

/// Runs transfer tasks on the HTTP engine: registers the transfer of a task when the task is ready,
/// enforces size limit and deadline, and calls the hooks of the task as its transfer proceeds.
///
/// At most one task runs per URI. A name is busy from add until the transfer ends or fails; a URI
/// is taken until the end of the turn that removes the task. Tasks are not owned and must live
/// until then. Failures are logged, reported through the hooks, and written to the record of the
/// run, whose number the task carries (BaseTransferTask::setRecord).
///
/// init() and service() run the inherited Init() and Service() of the engine, which are not called
/// on a TransferService otherwise.
class TransferService : public MultiHTTP, private TransferCanceller {
 public:
  TransferService();

  /// Must be called once, before any other operation.
  bool init();

  /// Starts the task (BaseTransferTask::start). Its transfer is registered on a later turn.
  /// @return false when the URI is taken or the task refuses to start; its record has then ended
  bool add(BaseTransferTask* task);

  /// One turn: moves data, reports ended transfers, expires deadlines, registers and finalises
  /// tasks. Blocks for at most `timeoutMs`, and only while no data moves.
  /// @return false if the engine failed; the next turn tries again
  bool service(unsigned int timeoutMs);

  /// Whether a task of this name has a transfer that has not ended; false once either of two runs
  /// of one task has ended.
  bool existsName(const std::string& name) const;
  /// Whether a task of this URI is known to the service.
  bool existsUri(const std::string& uri) const;

  /// The record of the run that has this URI, or of one with this name whose transfer has not
  /// ended; 0 if there is none.
  std::uint64_t recordOfUri(const std::string& uri) const;
  std::uint64_t recordOfName(const std::string& name) const;

  TransferRecords& records() { return records_; }

  void SignalTransferCompleted(const std::string& uri, TransferStatus status,
                               int httpCode) override;
  /// Enforces the size limit before it writes a chunk. If the announced length exceeds the limit,
  /// the first chunk fails and nothing is written. Without an announced length, the chunk that
  /// crosses the limit is still written and the next one fails.
  bool SignalBytesAvailable(const std::string& uri, unsigned char* data, unsigned long len,
                            unsigned long offset, long total) override;

 private:
  bool cancelTransfer(std::uint64_t record) override;
  void advance(const std::string& uri, TransferRun& run);
  void finalize(const std::string& uri, TransferRun& run);
  bool expireDeadline(const std::string& uri, TransferRun& run);
  void registerIfReady(const std::string& uri, TransferRun& run);
  void enforceUploadLimit(const std::string& uri, TransferRun& run);
  /// Ends the transfer of a task. Despite its name also called for TRANSFER_OK, when the task
  /// starts finalizing; with any other status the task fails.
  void cancel(const std::string& uri, bool logFailure, TransferStatus status, int httpCode);
  void cancelFinalize();

  // Updates of the records, in TransferServiceRecords.cpp.
  TransferRun takeOver(BaseTransferTask& task);
  bool refuse(const TransferRun& run, const std::string& reason);
  void end(const TransferRun& run, const TransferRun::End& end);
  void endFailed(const std::string& uri, TransferRun& run, TransferStatus status);
  void noteCompletion(TransferRun& run, TransferStatus status, int httpCode);
  void noteReceived(TransferRun& run, std::uint64_t received, long total);
  void noteRead(const std::string& uri, const utils::File& file, int error) override;

  TransferRecords records_;
  std::map<std::string, TransferRun> tasks_;  // by URI
  // URIs whose tasks are removed at the end of the turn: tasks_ must not shrink while it is walked.
  std::set<std::string> pendingCancel_;
  std::set<std::string> busyNames_;
};

}  // namespace kova::ctlserver
