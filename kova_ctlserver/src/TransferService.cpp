#include "TransferService.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "BaseTransferTask.h"
#include "DisplayText.h"
#include "kova/logger/Logger.h"
#include "kova/utils/Clock.h"

namespace kova::ctlserver {
namespace {

constexpr char kLogIdentity[] = "kova_ctlserver";
constexpr char kLogUnit[] = "TransferService";

const char* phaseOf(const BaseTransferTask& task) {
  if (task.finalizing()) {
    return "finalizing task";
  }
  return task.inTransfer() ? "in transfer" : "preparing files for transfer";
}

/// @param offset bytes written so far
/// @param total  announced length; 0 or less when unknown
bool exceeds(const BaseTransferTask& task, unsigned long offset, long total) {
  const unsigned long size = total > 0 ? static_cast<unsigned long>(total) : offset;  // kept: 47
  return task.maxSz() != 0 && size > task.maxSz();                                    // kept: 54
}

}  // namespace

TransferService::TransferService() {
  records_.setCanceller(this);
}

bool TransferService::init() {
  return Init();
}

bool TransferService::add(BaseTransferTask* task) {  // kept: 45
  const std::string& uri = task->uri();
  const TransferRun run = takeOver(*task);
  if (existsUri(uri)) {
    KOVA_LOG(LOG_ERR, 0, "Task %s busy, failed to start, uri=%s", task->name().c_str(),
             uri.c_str());
    return refuse(run, uriInUse(recordOfUri(uri)));
  }
  if (!task->start()) {
    KOVA_LOG(LOG_ERR, 0, "Failed to start task, task=%s, uri=%s", task->name().c_str(),
             uri.c_str());
    return refuse(run, task->reasonOfRun());
  }
  tasks_[uri] = run;
  busyNames_.insert(task->name());
  return true;
}

bool TransferService::existsName(const std::string& name) const {
  return busyNames_.contains(name);
}

bool TransferService::existsUri(const std::string& uri) const {
  return tasks_.contains(uri);
}

bool TransferService::service(unsigned int timeoutMs) {
  const bool pumped = Service(static_cast<int>(timeoutMs));
  for (auto& [uri, run] : tasks_) {
    if (!pendingCancel_.contains(uri)) {
      advance(uri, run);
    }
  }
  cancelFinalize();
  records_.flush();
  return pumped;
}

void TransferService::advance(const std::string& uri, TransferRun& run) {
  if (expireDeadline(uri, run)) {
    return;
  }
  registerIfReady(uri, run);
  if (run.task->finalizing() && !pendingCancel_.contains(uri)) {
    finalize(uri, run);
  }
}

void TransferService::finalize(const std::string& uri, TransferRun& run) {
  records_.enter(run.record, TransferPhase::Finalising);
  run.task->clearConclusion();
  bool done = false;
  run.task->onSuccess(done);
  if (done) {
    pendingCancel_.insert(uri);
    end(run, run.success());
  }
}

// kept: 15
bool TransferService::expireDeadline(const std::string& uri, TransferRun& run) {
  const BaseTransferTask& task = *run.task;
  if (utils::nowMs() <= task.startTime() + task.timeout()) {
    return false;
  }
  KOVA_LOG_IN("service", LOG_WARNING, 0, "Timeout %s, task=%s, uri=%s", phaseOf(task),
              task.name().c_str(), uri.c_str());
  run.cause = run.tooLate();
  cancel(uri, false, TRANSFER_TIMEOUT, 0);  // kept: 51
  return true;
}

void TransferService::registerIfReady(const std::string& uri, TransferRun& run) {
  BaseTransferTask& task = *run.task;
  if (task.inTransfer()) {
    return;
  }
  bool ready = task.download();
  std::string path;
  if (!ready) {
    task.onPrepare(ready, path);
  }
  if (!ready) {
    return;
  }
  // Read again: onPrepare may have turned the task into a download.
  const bool download = task.download();  // kept: 50
  if (!RegisterRequest(download, uri, download ? task.path() : path, task.formFields(),
                       task.timeout(), task.certFile(), task.privKeyFile(), task.caCertFile())) {
    KOVA_LOG_IN("service", LOG_WARNING, 0, "Failed to register transfer, task=%s, uri=%s",
                task.name().c_str(), uri.c_str());
    run.cause = run.registered ? "this ended its transfer" : cause();
    cancel(uri, false, TRANSFER_FAILED, 0);  // kept: 51
    return;
  }
  task.setInTransfer(true);
  run.registered = true;
  if (!download) {
    records_.setFile(run.record, path);
    enforceUploadLimit(uri, run);
  }
  records_.enter(run.record, TransferPhase::Transferring);  // no-op if the record has just ended
}

/// Fails an upload that exceeds its limit before anything is sent. The size is that of the open
/// file: checking the path beforehand would be a race.
void TransferService::enforceUploadLimit(const std::string& uri, TransferRun& run) {  // kept: 112
  unsigned long size = 0;
  GetUploadTotalSize(uri, size);
  records_.progress(run.record, 0, size);
  if (size > run.task->maxSz()) {
    run.cause = run.tooLarge("the file has", size);
    cancel(uri, true, TRANSFER_TOOLARGE, 0);
  }
}

void TransferService::SignalTransferCompleted(const std::string& uri, TransferStatus status,
                                              int httpCode) {
  MultiHTTP::SignalTransferCompleted(uri, status, httpCode);
  if (const auto entry = tasks_.find(uri); entry != tasks_.end()) {
    TransferRun& run = entry->second;
    if (status == TRANSFER_OK && httpCode >= kFirstHttpError && !run.task->download()) {
      KOVA_LOG(LOG_WARNING, 0, "The server refused the upload, name=%s, uri=%s, httpCode=%d",
               run.task->name().c_str(), withoutUserInfo(uri).c_str(), httpCode);
    }
    noteCompletion(run, status, httpCode);
  }
  if (status != TRANSFER_CANCELLED) {
    cancel(uri, true, status, httpCode);
  }
}

bool TransferService::SignalBytesAvailable(const std::string& uri, unsigned char* data,
                                           unsigned long len, unsigned long offset, long total) {
  if (pendingCancel_.contains(uri)) {
    // kept: 48
    return true;  // dropped: aborting would report the transfer a second time
  }
  const auto entry = tasks_.find(uri);
  if (entry == tasks_.end()) {
    KOVA_LOG(LOG_ERR, 0, "Failed to resolve task by uri=%s", uri.c_str());
    return false;
  }
  TransferRun& run = entry->second;
  if (exceeds(*run.task, offset, total)) {  // kept: 49
    run.cause = total > 0 ? run.tooLarge("the server announces", static_cast<unsigned long>(total))
                          : run.tooLarge("the server has sent", offset + len);
    cancel(uri, true, TRANSFER_TOOLARGE, 0);
    return true;
  }
  if (!MultiHTTP::SignalBytesAvailable(uri, data, len, offset, total)) {
    run.cause = std::string("the file could not be written: ") + std::strerror(errno);
    return false;
  }
  noteReceived(run, offset + len, total);
  return true;
}

void TransferService::cancel(const std::string& uri, bool logFailure, TransferStatus status,
                             int httpCode) {
  if (pendingCancel_.contains(uri)) {
    return;
  }
  const auto entry = tasks_.find(uri);
  if (entry == tasks_.end()) {
    KOVA_LOG(LOG_ERR, 0, "Failed to resolve task by uri=%s", uri.c_str());
    return;
  }
  BaseTransferTask& task = *entry->second.task;
  // The name is freed with the transfer, so that the client may send the next request of this kind
  // at once. The URI stays taken until cancelFinalize: libcurl may still hold the transfer.
  task.setFinalizing(true);
  busyNames_.erase(task.name());  // kept: 46
  if (status == TRANSFER_OK) {    // kept: 36
    return;                       // service() calls onSuccess until the task is done
  }
  if (logFailure) {
    KOVA_LOG(LOG_WARNING, 0, "Transfer task failed, name=%s, uri=%s, reason=%s(%d), httpCode=%d",
             task.name().c_str(), uri.c_str(),
             BaseTransferTask::decodeTransferStatus(status).c_str(), status, httpCode);
  }
  task.onFailure(status, httpCode);
  pendingCancel_.insert(uri);
  endFailed(uri, entry->second, status);
}

// Tasks are removed here and nowhere else: cancel() runs while service() walks tasks_, and from
// callbacks of libcurl, in which the transfer must not be removed from its multi handle.
void TransferService::cancelFinalize() {
  for (const std::string& uri : pendingCancel_) {
    if (!CancelTransfer(uri)) {
      KOVA_LOG(LOG_ERR, 0, "Internal error cancelling transfer, uri=%s", uri.c_str());
    }
    tasks_.erase(uri);  // kept: 52
  }
  pendingCancel_.clear();
}

/// Runs between two turns, so the transfer can be removed at once.
bool TransferService::cancelTransfer(std::uint64_t record) {
  const auto entry = std::ranges::find_if(
      tasks_, [&](const auto& candidate) { return candidate.second.record == record; });
  if (entry == tasks_.end()) {
    return false;
  }
  const std::string uri = entry->first;
  KOVA_LOG(LOG_INFO, 0, "Transfer cancelled on request, name=%s, uri=%s",
           entry->second.task->name().c_str(), withoutUserInfo(uri).c_str());
  entry->second.cause = "the transfer was cancelled on request";
  cancel(uri, false, TRANSFER_CANCELLED, 0);
  cancelFinalize();
  return true;
}

}  // namespace kova::ctlserver
