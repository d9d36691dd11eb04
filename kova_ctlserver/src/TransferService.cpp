#include "TransferService.h"

#include "BaseTransferTask.h"
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
  const unsigned long size = total > 0 ? static_cast<unsigned long>(total) : offset;
  return task.maxSz() != 0 && size > task.maxSz();
}

}  // namespace

bool TransferService::init() {
  return Init();
}

bool TransferService::add(BaseTransferTask* task) {
  const std::string& uri = task->uri();
  if (existsUri(uri)) {
    KOVA_LOG(LOG_ERR, 0, "Task %s busy, failed to start, uri=%s", task->name().c_str(),
             uri.c_str());
    return false;
  }
  if (!task->start()) {
    KOVA_LOG(LOG_ERR, 0, "Failed to start task, task=%s, uri=%s", task->name().c_str(),
             uri.c_str());
    return false;
  }
  tasks_[uri] = task;
  busyNames_.insert(task->name());
  return true;
}

bool TransferService::existsName(const std::string& name) const {
  return busyNames_.contains(name);
}

bool TransferService::existsUri(const std::string& uri) const {
  return tasks_.contains(uri) || pendingCancel_.contains(uri);
}

bool TransferService::service(unsigned int timeoutMs) {
  const bool pumped = Service(static_cast<int>(timeoutMs));
  for (const auto& [uri, task] : tasks_) {
    if (!pendingCancel_.contains(uri)) {
      Advance(uri, *task);
    }
  }
  cancelFinalize();
  return pumped;
}

void TransferService::Advance(const std::string& uri, BaseTransferTask& task) {
  if (ExpireDeadline(uri, task) || !RegisterIfReady(uri, task)) {
    return;
  }
  if (task.finalizing()) {
    bool done = false;
    task.onSuccess(done);
    if (done) {
      pendingCancel_.insert(uri);
    }
  }
}

bool TransferService::ExpireDeadline(const std::string& uri, const BaseTransferTask& task) {
  if (utils::nowMs() <= task.startTime() + task.timeout()) {
    return false;
  }
  KOVA_LOG_IN("service", LOG_WARNING, 0, "Timeout %s, task=%s, uri=%s", phaseOf(task),
              task.name().c_str(), uri.c_str());
  cancel(uri, false, TRANSFER_TIMEOUT, 0);
  return true;
}

/// False when the registration failed, and the task with it.
bool TransferService::RegisterIfReady(const std::string& uri, BaseTransferTask& task) {
  if (task.inTransfer()) {
    return true;
  }
  bool ready = task.download();
  std::string path;
  if (!ready) {
    task.onPrepare(ready, path);
  }
  if (!ready) {
    return true;
  }
  // Read again: the hook may have made the task a download.
  const bool download = task.download();
  if (!RegisterRequest(download, uri, download ? task.path() : path, task.formFields(),
                       task.timeout(), task.certFile(), task.privKeyFile(), task.caCertFile())) {
    KOVA_LOG_IN("service", LOG_WARNING, 0, "Failed to register transfer, task=%s, uri=%s",
                task.name().c_str(), uri.c_str());
    cancel(uri, false, TRANSFER_FAILED, 0);
    return false;
  }
  task.setInTransfer(true);
  return true;
}

void TransferService::SignalTransferCompleted(const std::string& uri, TransferStatus status,
                                              int httpCode) {
  MultiHTTP::SignalTransferCompleted(uri, status, httpCode);
  if (status != TRANSFER_CANCELLED) {
    cancel(uri, true, status, httpCode);
  }
}

bool TransferService::SignalBytesAvailable(const std::string& uri, unsigned char* data,
                                           unsigned long len, unsigned long offset, long total) {
  if (pendingCancel_.contains(uri)) {
    return true;  // dropped; aborting here would report the transfer a second time
  }
  const auto entry = tasks_.find(uri);
  if (entry == tasks_.end()) {
    KOVA_LOG(LOG_ERR, 0, "Failed to resolve task by uri=%s", uri.c_str());
    return false;
  }
  if (exceeds(*entry->second, offset, total)) {
    cancel(uri, true, TRANSFER_TOOLARGE, 0);
    return true;
  }
  return MultiHTTP::SignalBytesAvailable(uri, data, len, offset, total);
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
  BaseTransferTask& task = *entry->second;
  task.setFinalizing(true);
  busyNames_.erase(task.name());
  if (status == TRANSFER_OK) {
    return;
  }
  if (logFailure) {
    KOVA_LOG(LOG_WARNING, 0, "Transfer task failed, name=%s, uri=%s, reason=%s(%d), httpCode=%d",
             task.name().c_str(), uri.c_str(),
             BaseTransferTask::decodeTransferStatus(status).c_str(), status, httpCode);
  }
  task.onFailure(status, httpCode);
  pendingCancel_.insert(uri);
}

void TransferService::cancelFinalize() {
  for (const std::string& uri : pendingCancel_) {
    if (!CancelTransfer(uri)) {
      KOVA_LOG(LOG_ERR, 0, "Internal error cancelling transfer, uri=%s", uri.c_str());
    }
    tasks_.erase(uri);
  }
  pendingCancel_.clear();
}

}  // namespace kova::ctlserver
