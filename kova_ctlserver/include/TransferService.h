#pragma once

#include <map>
#include <set>
#include <string>

#include "multihttp.h"

namespace kova::ctlserver {

class BaseTransferTask;

/// Runs transfer tasks on the HTTP engine: registers each task's transfer when the task is ready,
/// enforces its size limit and its deadline, and turns what becomes of the transfer into the task's
/// hooks.
///
/// Of one URI at most one task runs at a time. A name is busy from add until the transfer has ended
/// or failed; a URI is taken until the end of the turn in which the task is let go. Tasks are not
/// owned and must stay until then. Failures are logged and reported through the hooks.
class TransferService : public MultiHTTP {
 public:
  /// Once, before any other operation.
  bool init();

  /// Starts the task (BaseTransferTask::start). Its transfer is registered on a later turn.
  /// @return false when the URI is taken or the task refuses to start
  bool add(BaseTransferTask* task);

  /// One turn: moves data, reports what has ended, expires deadlines, registers what is ready and
  /// finalises what has arrived. Blocks for at most `timeoutMs`, and only while nothing moves.
  /// @return false when the engine failed; the next turn tries again
  bool service(unsigned int timeoutMs);

  /// Whether a task of this name has a transfer that has not yet ended.
  bool existsName(const std::string& name) const;
  /// Whether a task of this URI is known to the service.
  bool existsUri(const std::string& uri) const;

  void SignalTransferCompleted(const std::string& uri, TransferStatus status,
                               int httpCode) override;
  /// Enforces the size limit before the chunk is written. An announced length over the limit fails
  /// at the first chunk, with nothing written; without one, the chunk that crosses the limit is
  /// still written and the next one fails.
  bool SignalBytesAvailable(const std::string& uri, unsigned char* data, unsigned long len,
                            unsigned long offset, long total) override;

 private:
  void Advance(const std::string& uri, BaseTransferTask& task);
  bool ExpireDeadline(const std::string& uri, const BaseTransferTask& task);
  bool RegisterIfReady(const std::string& uri, BaseTransferTask& task);
  void cancel(const std::string& uri, bool logFailure, TransferStatus status, int httpCode);
  void cancelFinalize();

  std::map<std::string, BaseTransferTask*> tasks_;  // by URI
  // URIs whose tasks are let go of at the end of the turn: only then may tasks_ shrink.
  std::set<std::string> pendingCancel_;
  std::set<std::string> busyNames_;
};

}  // namespace kova::ctlserver
