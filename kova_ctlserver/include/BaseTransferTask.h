#pragma once

#include <cstdint>
#include <string>

#include "TlsFiles.h"
#include "TransferStatus.h"
#include "kova/variant/Variant.h"

namespace kova::ctlserver {

/// One named, reusable piece of work that moves one file over HTTP(S): a download of a URI into a
/// local file, or an upload of a local file to a URI as a multipart form.
///
/// The object outlives its runs: it is armed with the setters, handed to TransferService::add and,
/// once the service has let go of it, armed again. A concrete task overrides hooks; they all run on
/// the daemon's one thread, inside TransferService::add and TransferService::service.
class BaseTransferTask {
 public:
  BaseTransferTask() = default;
  virtual ~BaseTransferTask() = default;
  BaseTransferTask(const BaseTransferTask&) = delete;
  BaseTransferTask& operator=(const BaseTransferTask&) = delete;

  /// Validation of this kind of task, first of all in start(); the place to fill in defaults.
  /// @return false refuses the task
  virtual bool onCheck();
  /// Last in start(), with the clock running; its result is the result of start().
  virtual bool onStart();
  /// Uploads only: asked on every turn of the service until the file to send is there. The deadline
  /// runs meanwhile.
  /// @param ready out: whether `path` can be sent now
  /// @param path  out: the file to upload
  virtual void onPrepare(bool& ready, std::string& path);
  /// Called on every turn after the transfer ended with TRANSFER_OK until it sets `done`. The
  /// server's answer was not judged: an error page counts as success here. The deadline runs
  /// meanwhile.
  virtual void onSuccess(bool& done);
  /// Called exactly once for a run that failed; the service then lets go of the task.
  /// @param status   never TRANSFER_OK
  /// @param httpCode 0 when there was no response or the failure was found locally
  virtual void onFailure(TransferStatus status, int httpCode);
  /// Tells the requester the outcome, as an EventTransferRequestStatus addressed to ipcOrigin().
  /// Nothing is sent with setSendNoEvents(true); a failure to send is logged and not retried.
  virtual void notifyStatus(const std::string& status);

  // Each only stores its value.
  BaseTransferTask& setName(const std::string& name);
  /// @param download true: URI into file; false: file to URI
  BaseTransferTask& setKind(bool download);
  /// @param bytes longest body of a download; required of uploads too
  BaseTransferTask& setMaxSz(std::uint32_t bytes);
  BaseTransferTask& setUri(const std::string& uri);
  /// @param path destination of a download, source of an upload unless onPrepare says otherwise
  BaseTransferTask& setPath(const std::string& path);
  /// @param milliseconds deadline of the whole run: preparation, transfer and finalisation
  BaseTransferTask& setTimeout(std::uint32_t milliseconds);
  BaseTransferTask& setCertFile(const std::string& path);
  BaseTransferTask& setPrivKeyFile(const std::string& path);
  BaseTransferTask& setCACertFile(const std::string& path);
  /// @param fields string-keyed map of strings, sent as form fields after the file of an upload
  BaseTransferTask& setFormFields(const variant::Variant& fields);
  /// @param id of the request whose outcome notifyStatus reports
  BaseTransferTask& setIpcRequestId(std::uint64_t id);
  /// @param endpoint whom notifyStatus addresses
  BaseTransferTask& setIpcOrigin(const std::string& endpoint);
  BaseTransferTask& setSendNoEvents(bool sendNoEvents);

  const std::string& name() const { return name_; }
  bool download() const { return download_; }
  std::uint32_t maxSz() const { return maxSz_; }
  const std::string& uri() const { return uri_; }
  const std::string& path() const { return path_; }
  std::uint32_t timeout() const { return timeout_; }
  const std::string& certFile() const { return certFile_; }
  const std::string& privKeyFile() const { return privKeyFile_; }
  const std::string& caCertFile() const { return caCertFile_; }
  const variant::Variant& formFields() const { return formFields_; }
  std::uint64_t ipcRequestId() const { return ipcRequestId_; }
  const std::string& ipcOrigin() const { return ipcOrigin_; }
  bool sendNoEvents() const { return sendNoEvents_; }

  /// Milliseconds of utils::nowMs() at which this run started; 0 before the first.
  std::uint64_t startTime() const { return startTime_; }
  /// Whether this run's transfer is registered with the engine.
  bool inTransfer() const { return inTransfer_; }
  /// Whether this run's transfer has ended, well or not.
  bool finalizing() const { return finalizing_; }

  // For TransferService, which drives a run.
  /// Validates the parameters and starts a run: onCheck, the checks common to all tasks, the clock,
  /// onStart. False, with the reason logged, when any of them refuses.
  bool start();
  void setInTransfer(bool inTransfer) { inTransfer_ = inTransfer; }
  void setFinalizing(bool finalizing) { finalizing_ = finalizing; }

  /// The text by which a failure is reported to clients; "TRANSFER_FAILED" for every value that has
  /// no text of its own, TRANSFER_OK and TRANSFER_CANCELLED included.
  static std::string decodeTransferStatus(TransferStatus status);

 private:
  bool ParametersComplete() const;

  std::string name_;
  bool download_ = true;
  std::uint32_t maxSz_ = 0;
  std::string uri_;
  std::string path_;
  std::uint32_t timeout_ = 0;
  std::string certFile_ = kClientCertFile;
  std::string privKeyFile_;
  std::string caCertFile_ = kControllerCertFile;
  variant::Variant formFields_;
  std::uint64_t startTime_ = 0;
  bool inTransfer_ = false;
  bool finalizing_ = false;
  std::uint64_t ipcRequestId_ = 0;
  std::string ipcOrigin_;
  bool sendNoEvents_ = false;
};

}  // namespace kova::ctlserver
