#include "BaseTransferTask.h"

#include "DisplayText.h"
#include "TransferRecords.h"
#include "kova/ipc/Ipc.h"
#include "kova/logger/Logger.h"
#include "kova/messages/Events.h"
#include "kova/utils/Clock.h"

namespace kova::ctlserver {
namespace {

constexpr char kLogIdentity[] = "kova_ctlserver";
constexpr char kLogUnit[] = "BaseTransferTask";

bool isSet(const std::string& value) {
  return !value.empty() && ipc::messages::isGiven(value);
}

}  // namespace

bool BaseTransferTask::onCheck() {
  return true;
}

bool BaseTransferTask::onStart() {
  return true;
}

void BaseTransferTask::onPrepare(bool& ready, std::string& path) {
  ready = true;
  path = path_;
}

void BaseTransferTask::onSuccess(bool& done) {
  done = true;
}

void BaseTransferTask::onFailure(TransferStatus /*status*/, int /*httpCode*/) {}

void BaseTransferTask::notifyStatus(const std::string& status) {
  if (sendNoEvents_) {
    return;
  }
  ipc::Ipc* ipc = ipc::Ipc::GetInstance();
  if (ipc == nullptr) {
    KOVA_LOG(LOG_ERR, 0, "pIpc is NULL");
    return;
  }
  ipc::messages::EventTransferRequestStatus event;
  event.to(ipcOrigin_);
  event.requestId(ipcRequestId_);
  event.status(status);
  if (!ipc->SendRequest(event)) {
    KOVA_LOG(LOG_WARNING, 0, "Failed to send transfer task status notification");
  }
}

void BaseTransferTask::conclude(const std::string& outcome, const std::string& reason) {
  outcome_ = outcome;
  reason_ = reason.substr(0, kMaxCauseBytes);
}

bool BaseTransferTask::refuseRun(const std::string& reason) {
  conclude(kOutcomeRefused, reason);
  return false;
}

bool BaseTransferTask::start() {
  if (!onCheck()) {
    KOVA_LOG(LOG_ERR, 0, "Task-specific checks failed");
    return false;
  }
  if (!parametersComplete()) {
    return false;
  }
  startTime_ = utils::nowMs();
  inTransfer_ = false;
  finalizing_ = false;
  return onStart();
}

bool BaseTransferTask::parametersComplete() {  // kept: 15
  const struct {
    const char* text;
    const char* reason;
    int line;
    bool missing;
  } checks[] = {
      {"Name must be set", "the task has no name", __LINE__, name_.empty()},
      // kept: 62
      {"Max size must be set", "the task has no size limit", __LINE__, maxSz_ == 0},
      {"URI must be set", "the request gives no URI (uri)", __LINE__, !isSet(uri_)},
      {"Path must be set when downloading", "the task has no path to download to", __LINE__,
       download_ && !isSet(path_)},
      {"Timeout must be set", "the request gives no time-out (timeoutMs)", __LINE__, timeout_ == 0},
      {"IPC origin must be set when sending events is on",
       "the request does not say to whom events go (from)", __LINE__,
       !sendNoEvents_ && ipcOrigin_.empty()},
  };
  for (const auto& check : checks) {
    if (check.missing) {
      KOVA_LOG_LINE(check.line, "start", LOG_ERR, 0, "%s", check.text);
      return refuseRun(check.reason);
    }
  }
  return true;
}

std::string BaseTransferTask::decodeTransferStatus(TransferStatus status) {
  switch (status) {
    case DISK_IO_FAILED:
      return "DISK_IO_FAILED";
    case TRANSFER_BUSY:
      return "TRANSFER_BUSY";
    case TRANSFER_TIMEOUT:
      return "TRANSFER_TIMEOUT";
    case TRANSFER_TOOLARGE:
      return "TRANSFER_TOOLARGE";
    default:  // kept: 53
      return "TRANSFER_FAILED";
  }
}

BaseTransferTask& BaseTransferTask::setName(const std::string& name) {
  name_ = name;
  return *this;
}

BaseTransferTask& BaseTransferTask::setKind(bool download) {
  download_ = download;
  return *this;
}

BaseTransferTask& BaseTransferTask::setMaxSz(std::uint32_t bytes) {
  maxSz_ = bytes;
  return *this;
}

BaseTransferTask& BaseTransferTask::setUri(const std::string& uri) {
  uri_ = uri;
  return *this;
}

BaseTransferTask& BaseTransferTask::setPath(const std::string& path) {
  path_ = path;
  return *this;
}

BaseTransferTask& BaseTransferTask::setTimeout(std::uint32_t milliseconds) {
  timeout_ = milliseconds;
  return *this;
}

BaseTransferTask& BaseTransferTask::setCertFile(const std::string& path) {
  certFile_ = path;
  return *this;
}

BaseTransferTask& BaseTransferTask::setPrivKeyFile(const std::string& path) {
  privKeyFile_ = path;
  return *this;
}

BaseTransferTask& BaseTransferTask::setCACertFile(const std::string& path) {
  caCertFile_ = path;
  return *this;
}

BaseTransferTask& BaseTransferTask::setFormFields(const variant::Variant& fields) {
  formFields_ = fields;
  return *this;
}

BaseTransferTask& BaseTransferTask::setIpcRequestId(std::uint64_t id) {
  ipcRequestId_ = id;
  return *this;
}

BaseTransferTask& BaseTransferTask::setIpcOrigin(const std::string& endpoint) {
  ipcOrigin_ = endpoint;
  return *this;
}

BaseTransferTask& BaseTransferTask::setSendNoEvents(bool sendNoEvents) {
  sendNoEvents_ = sendNoEvents;
  return *this;
}

BaseTransferTask& BaseTransferTask::setRecord(std::uint64_t number) {
  record_ = number;
  return *this;
}

}  // namespace kova::ctlserver
