#pragma once

#include <map>
#include <memory>
#include <string>

#include "TransferHandles.h"
#include "TransferStatus.h"
#include "curlcontext.h"
#include "kova/variant/Variant.h"

namespace kova::ctlserver {

/// Any number of HTTP(S) transfers at once on one multi handle of libcurl (libcurl-multi(3)),
/// without threads: everything happens on the caller's thread, inside Service and CancelTransfer.
///
/// A transfer is known by its URI. What becomes of its bytes is a subclass's affair. Every
/// registered transfer ends in exactly one SignalTransferCompleted, except those still under way
/// when the driver is destroyed. Failures are logged where they happen and returned as false.
class BaseHTTP {
 public:
  BaseHTTP();
  /// Drops the transfers under way without reporting them.
  virtual ~BaseHTTP();
  BaseHTTP(const BaseHTTP&) = delete;
  BaseHTTP& operator=(const BaseHTTP&) = delete;

  /// A transfer has ended, for good. Must not register or cancel the same URI.
  /// @param httpCode status code of the last response, 0 when there was none. It is not judged: a
  ///                 404 that arrived whole ends with TRANSFER_OK.
  virtual void SignalTransferCompleted(const std::string& uri, TransferStatus status,
                                       int httpCode) = 0;
  /// One chunk of a download's body.
  /// @param offset bytes accepted before this chunk
  /// @param total  announced length of the body, or -1
  /// @return false aborts the transfer, which then ends with DISK_IO_FAILED
  virtual bool SignalBytesAvailable(const std::string& uri, unsigned char* data, unsigned long len,
                                    unsigned long offset, long total) = 0;
  /// Length in bytes of what is to be uploaded to `uri`; false refuses the upload.
  virtual bool GetUploadTotalSize(const std::string& uri, unsigned long& size) = 0;
  /// Fills `buffer` with the next bytes of an upload.
  /// @return bytes written; 0 at the end; CURL_READFUNC_ABORT ends it with TRANSFER_FAILED
  virtual unsigned long FillUploadBuffer(const std::string& uri, unsigned char* buffer,
                                         unsigned long size) = 0;

  /// Once, before any other operation.
  bool Init();

  /// Starts one transfer; nothing is sent before the next Service. Callers keep URIs unique: of two
  /// transfers of one URI both run and report, and only the later can be cancelled. The parameters
  /// are those of CurlContext.
  bool RegisterRequest(bool download, const std::string& uri, const variant::Variant& formFields,
                       unsigned int timeoutMs, const std::string& certFile,
                       const std::string& privKeyFile, const std::string& caCertFile);

  /// One step of all transfers: waits up to `timeoutMs` for a socket to become ready, moves what
  /// can be moved without blocking, and reports the transfers that have ended.
  /// @return false when libcurl failed; the transfers stay registered and the next call tries again
  bool Service(int timeoutMs);

  /// Stops a transfer, which is reported as TRANSFER_CANCELLED before this returns. True also when
  /// there is no such transfer, and nothing is reported then.
  bool CancelTransfer(const std::string& uri);

 private:
  bool HandleMessage(const CURLMsg& message);
  void Complete(CurlContext& context, TransferStatus status, long httpCode);

  MultiHandle multi_;
  std::map<std::string, CurlContext*> transfers_;
  // Apart from the look-up by URI, so that a transfer whose URI was taken over by a later one still
  // has an owner.
  std::map<const CurlContext*, std::unique_ptr<CurlContext>> contexts_;
};

}  // namespace kova::ctlserver
