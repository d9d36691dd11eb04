#pragma once

#include <map>
#include <set>
#include <string>

#include "multihttp.h"

namespace kova::ctlserver {

class BaseTransferTask;

/// Runs transfer tasks on the HTTP engine: registers the transfer of a task when the task is ready,
/// enforces size limit and deadline, and calls the hooks of the task as its transfer proceeds.
///
/// At most one task runs per URI. A name is busy from add until the transfer ends or fails; a URI
/// is taken until the end of the turn that removes the task. Tasks are not owned and must live
/// until then. Failures are logged and reported through the hooks.
class TransferService : public MultiHTTP {
 public:
  /// Must be called once, before any other operation.
  bool init();

  /// Starts the task (BaseTransferTask::start). Its transfer is registered on a later turn.
  /// @return false when the URI is taken or the task refuses to start
  bool add(BaseTransferTask* task);

  /// One turn: moves data, reports ended transfers, expires deadlines, registers and finalises
  /// tasks. Blocks for at most `timeoutMs`, and only while no data moves.
  /// @return false if the engine failed; the next turn tries again
  bool service(unsigned int timeoutMs);

  /// Whether a task of this name has a transfer that has not ended.
  bool existsName(const std::string& name) const;
  /// Whether a task of this URI is known to the service.
  bool existsUri(const std::string& uri) const;

  void SignalTransferCompleted(const std::string& uri, TransferStatus status,
                               int httpCode) override;
  /// Enforces the size limit before it writes a chunk. If the announced length exceeds the limit,
  /// the first chunk fails and nothing is written. Without an announced length, the chunk that
  /// crosses the limit is still written and the next one fails.
  bool SignalBytesAvailable(const std::string& uri, unsigned char* data, unsigned long len,
                            unsigned long offset, long total) override;

 private:
  void Advance(const std::string& uri, BaseTransferTask& task);
  bool ExpireDeadline(const std::string& uri, const BaseTransferTask& task);
  bool RegisterIfReady(const std::string& uri, BaseTransferTask& task);
  bool HoldToSize(const std::string& uri, const BaseTransferTask& task);
  void cancel(const std::string& uri, bool logFailure, TransferStatus status, int httpCode);
  void cancelFinalize();

  std::map<std::string, BaseTransferTask*> tasks_;  // by URI
  // URIs whose tasks are removed at the end of the turn: tasks_ must not shrink while it is walked.
  std::set<std::string> pendingCancel_;
  std::set<std::string> busyNames_;
};

}  // namespace kova::ctlserver
