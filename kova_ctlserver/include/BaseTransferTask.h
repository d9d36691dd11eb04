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
/// The object outlives its runs: it is armed with the setters, passed to TransferService::add and,
/// once the service has removed it, armed again. Concrete tasks override the hooks, which run
/// inside TransferService::add and TransferService::service, on the one thread of the daemon.
class BaseTransferTask {
 public:
  BaseTransferTask() = default;
  virtual ~BaseTransferTask() = default;
  BaseTransferTask(const BaseTransferTask&) = delete;
  BaseTransferTask& operator=(const BaseTransferTask&) = delete;

  /// Validates the parameters specific to this kind of task and fills in defaults. Called first in
  /// start(); false refuses the task.
  virtual bool onCheck();
  /// Called last in start(), with the deadline running; its result is the result of start().
  virtual bool onStart();
  /// Uploads only: called on every turn until the file is ready, while the deadline runs.
  /// @param ready receives whether `path` can be sent now
  /// @param path  receives the file to upload
  virtual void onPrepare(bool& ready, std::string& path);
  /// Called on every turn after TRANSFER_OK until it sets `done`, while the deadline runs. The HTTP
  /// status has not been checked: the file may be an error page.
  virtual void onSuccess(bool& done);
  /// Called exactly once for a failed run; the service then removes the task.
  /// @param status   never TRANSFER_OK
  /// @param httpCode 0 if there was no response or the failure is local
  virtual void onFailure(TransferStatus status, int httpCode);
  /// Sends the outcome to ipcOrigin() as an EventTransferRequestStatus, unless
  /// setSendNoEvents(true). A failure to send is logged and not retried.
  virtual void notifyStatus(const std::string& status);

  // Each setter only stores its value.
  BaseTransferTask& setName(const std::string& name);
  /// @param download true: URI into file; false: file to URI
  BaseTransferTask& setKind(bool download);
  /// @param bytes maximum size of the body; required for uploads, too
  BaseTransferTask& setMaxSz(std::uint32_t bytes);
  BaseTransferTask& setUri(const std::string& uri);
  /// @param path destination of a download; source of an upload, unless onPrepare sets another
  BaseTransferTask& setPath(const std::string& path);
  /// @param milliseconds deadline of the whole run, from preparation to finalisation
  BaseTransferTask& setTimeout(std::uint32_t milliseconds);
  BaseTransferTask& setCertFile(const std::string& path);
  BaseTransferTask& setPrivKeyFile(const std::string& path);
  BaseTransferTask& setCACertFile(const std::string& path);
  /// @param fields string-keyed map of strings, sent as form fields after the file of an upload
  BaseTransferTask& setFormFields(const variant::Variant& fields);
  /// @param id of the request whose outcome notifyStatus reports
  BaseTransferTask& setIpcRequestId(std::uint64_t id);
  /// @param endpoint destination of notifyStatus
  BaseTransferTask& setIpcOrigin(const std::string& endpoint);
  BaseTransferTask& setSendNoEvents(bool sendNoEvents);
  /// @param number of the request's record in TransferRecords; 0: none
  BaseTransferTask& setRecord(std::uint64_t number);

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
  std::uint64_t record() const { return record_; }

  /// utils::nowMs() when this run started; 0 before the first run.
  std::uint64_t startTime() const { return startTime_; }
  /// Whether the transfer of this run is registered with the engine.
  bool inTransfer() const { return inTransfer_; }
  /// Whether the transfer of this run has ended, successfully or not.
  bool finalizing() const { return finalizing_; }

  // For TransferService, which drives a run.
  /// Starts a run: onCheck, the common checks, the clock, onStart. Returns false, with the reason
  /// logged, if any of them refuses.
  bool start();
  /// Clears the outcome and the reason that the last hook set.
  void clearConclusion() { conclude("", ""); }
  void setInTransfer(bool inTransfer) { inTransfer_ = inTransfer; }
  void setFinalizing(bool finalizing) { finalizing_ = finalizing; }

  /// Outcome that the last hook set, as in TransferRecord; "" if none.
  const std::string& outcomeOfRun() const { return outcome_; }
  /// Reason for that outcome or for a refusal by start(): a clause, see TransferRecords::end.
  const std::string& reasonOfRun() const { return reason_; }

  /// The text that reports a failure to clients: "TRANSFER_FAILED" for every value without its own
  /// text, including TRANSFER_OK and TRANSFER_CANCELLED.
  static std::string decodeTransferStatus(TransferStatus status);

 protected:
  /// For the hooks: sets outcome and reason of the run; the reason is cut to kMaxCauseBytes. Sends
  /// no event.
  void conclude(const std::string& outcome, const std::string& reason);
  /// For onCheck and onStart: sets the reason of a refusal. Always returns false.
  bool refuseRun(const std::string& reason);

 private:
  bool parametersComplete();

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
  std::uint64_t record_ = 0;
  std::string outcome_;
  std::string reason_;
};

}  // namespace kova::ctlserver
