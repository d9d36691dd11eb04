#pragma once

#include <map>
#include <memory>
#include <string>
#include <utility>

#include "PumpGuard.h"
#include "TransferHandles.h"
#include "TransferStatus.h"
#include "curlcontext.h"
#include "kova/variant/Variant.h"

namespace kova::ctlserver {

/// Runs any number of HTTP(S) transfers on one multi handle of libcurl (libcurl-multi(3)). There
/// are no threads: everything happens inside Service and CancelTransfer.
///
/// A transfer is identified by its URI; subclasses decide where its bytes go. Every registered
/// transfer ends in exactly one SignalTransferCompleted, except those still running when the driver
/// is destroyed. Failures are logged where they happen and returned as false.
///
/// PumpGuard bounds the time that a server can hold either call: it cuts the connections, and their
/// transfers end with TRANSFER_FAILED. If its timer cannot be created, that is logged and transfers
/// run unguarded. Init, Service, CancelTransfer and the destructor must be called by one thread.
class BaseHTTP {
 public:
  BaseHTTP();
  /// Drops running transfers without reporting them.
  virtual ~BaseHTTP();
  BaseHTTP(const BaseHTTP&) = delete;
  BaseHTTP& operator=(const BaseHTTP&) = delete;

  /// Called when a transfer has ended. Must not register or cancel the same URI.
  /// @param httpCode status code of the last response, or 0. It does not affect `status`: a 404
  ///                 that arrived whole ends with TRANSFER_OK.
  virtual void SignalTransferCompleted(const std::string& uri, TransferStatus status,
                                       int httpCode) = 0;
  /// Called for each chunk of a body.
  /// @param offset bytes accepted before this chunk
  /// @param total  announced length of the body, or -1
  /// @return false aborts the transfer, which then ends with DISK_IO_FAILED
  virtual bool SignalBytesAvailable(const std::string& uri, unsigned char* data, unsigned long len,
                                    unsigned long offset, long total) = 0;
  /// Returns the number of bytes to upload to `uri` in `size`; false refuses the upload.
  virtual bool GetUploadTotalSize(const std::string& uri, unsigned long& size) = 0;
  /// Fills `buffer` with the next bytes of an upload.
  /// @return bytes written; 0 at the end; CURL_READFUNC_ABORT ends it with TRANSFER_FAILED
  virtual unsigned long FillUploadBuffer(const std::string& uri, unsigned char* buffer,
                                         unsigned long size) = 0;

  /// Must be called once, before any other operation.
  bool Init();

  /// Starts a transfer; nothing is sent before the next Service. Callers keep URIs unique: two
  /// transfers of one URI both run and report, but only the later can be cancelled. See CurlContext
  /// for the parameters.
  bool RegisterRequest(bool download, const std::string& uri, const variant::Variant& formFields,
                       unsigned int timeoutMs, const std::string& certFile,
                       const std::string& privKeyFile, const std::string& caCertFile);

  /// One step of all transfers: waits up to `timeoutMs` for a socket to become ready, moves data
  /// without blocking, and reports ended transfers.
  /// @return false if libcurl failed; the transfers stay registered and the next call tries again
  bool Service(int timeoutMs);

  /// Stops a transfer and reports it as TRANSFER_CANCELLED before it returns. Without such a
  /// transfer, reports nothing and returns true.
  bool CancelTransfer(const std::string& uri);

  /// Watches the sockets of the transfers.
  PumpGuard& guard() { return guard_; }

 protected:
  /// Cause of the failure that SignalTransferCompleted reports, or of the last RegisterRequest: a
  /// human-readable clause, which may contain parts of the URI.
  const std::string& cause() const { return cause_; }
  /// HTTP status code received so far by a running transfer; 0: none yet.
  int httpStatusOf(const std::string& uri) const;
  /// Truncates `cause` to kMaxCauseBytes.
  void setCause(const std::string& cause);

 private:
  // These may read sockets, so they run under the guard.
  CURLMcode perform();
  CURLMcode remove(CURL* curl);
  void forget(const CurlContext& context);

  bool handleMessage(const CURLMsg& message);
  void complete(CurlContext& context, TransferStatus status, long httpCode);

  PumpGuard guard_;  // outlives all sockets
  std::string cause_;
  MultiHandle multi_;
  std::map<std::string, CurlContext*> transfers_;
  // Owns the contexts. transfers_ cannot: a second transfer of one URI replaces the entry there.
  std::map<const CurlContext*, std::unique_ptr<CurlContext>> contexts_;
};

}  // namespace kova::ctlserver
