#pragma once

#include <map>
#include <memory>
#include <string>

#include "basehttp.h"
#include "kova/utils/File.h"

namespace kova::ctlserver {

/// Transfers that are bound to local files: a download is written to its file as it arrives, an
/// upload's file part is read as it is sent.
///
/// A URI takes part in at most one transfer; a path in at most one download and one upload. The
/// download and the upload of one path share their end: when either completes, both files are
/// closed, so callers do not run such pairs.
class MultiHTTP : public BaseHTTP {
 public:
  /// Closes all files; see BaseHTTP for the transfers under way.
  ~MultiHTTP() override;

  /// Opens `path`, replacing its content for a download, and starts the transfer. The other
  /// parameters are those of CurlContext.
  ///
  /// @return false when the URI or the path is in use, the file cannot be opened, or the transfer
  /// cannot be started. In the last case the file stays open, and the URI and the path stay in use,
  /// until SignalTransferCompleted is called for the URI.
  bool RegisterRequest(bool download, const std::string& uri, const std::string& path,
                       const variant::Variant& formFields, unsigned int timeoutMs,
                       const std::string& certFile, const std::string& privKeyFile,
                       const std::string& caCertFile);

  /// Closes the transfer's file and forgets the transfer. What a failed download has written stays
  /// on disk.
  void SignalTransferCompleted(const std::string& uri, TransferStatus status,
                               int httpCode) override;
  bool SignalBytesAvailable(const std::string& uri, unsigned char* data, unsigned long len,
                            unsigned long offset, long total) override;
  bool GetUploadTotalSize(const std::string& uri, unsigned long& size) override;
  unsigned long FillUploadBuffer(const std::string& uri, unsigned char* buffer,
                                 unsigned long size) override;

 private:
  using Files = std::map<std::string, std::unique_ptr<utils::File>>;

  utils::File* UploadFile(const std::string& uri, const char* operation) const;

  Files downloadFiles_;  // by path
  Files uploadFiles_;    // by path
  std::map<std::string, std::string> uriToPath_;
};

}  // namespace kova::ctlserver
