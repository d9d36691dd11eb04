#pragma once

#include <map>
#include <memory>
#include <string>

#include "basehttp.h"
#include "kova/utils/File.h"

namespace kova::ctlserver {

/// Binds transfers to local files: a download is written as it arrives, an upload is read as it is
/// sent.
///
/// A URI has at most one transfer; a path has at most one download and one upload. Callers must not
/// run both on one path: when either completes, the files of both are closed.
class MultiHTTP : public BaseHTTP {
 public:
  /// Closes the files of downloads, then those of uploads. See BaseHTTP for running transfers.
  ~MultiHTTP() override;

  /// Opens `path`, truncating it for a download, and starts the transfer. See CurlContext for the
  /// other parameters.
  ///
  /// @return false if the URI or the path is in use, the URI or a form field contains a NUL, the
  /// file cannot be opened, or the transfer cannot be started. In the last case the file stays
  /// open, and the URI and the path stay in use, until SignalTransferCompleted is called for the
  /// URI.
  bool RegisterRequest(bool download, const std::string& uri, const std::string& path,
                       const variant::Variant& formFields, unsigned int timeoutMs,
                       const std::string& certFile, const std::string& privKeyFile,
                       const std::string& caCertFile);

  /// Closes the file and forgets the transfer. The partial file of a failed download stays on disk.
  void SignalTransferCompleted(const std::string& uri, TransferStatus status,
                               int httpCode) override;
  bool SignalBytesAvailable(const std::string& uri, unsigned char* data, unsigned long len,
                            unsigned long offset, long total) override;
  bool GetUploadTotalSize(const std::string& uri, unsigned long& size) override;
  unsigned long FillUploadBuffer(const std::string& uri, unsigned char* buffer,
                                 unsigned long size) override;

 protected:
  /// Called after each read of the file of an upload.
  /// @param error an errno value, or 0
  virtual void noteRead(const std::string& uri, const utils::File& file, int error);

 private:
  using Files = std::map<std::string, std::unique_ptr<utils::File>>;

  utils::File* uploadFile(const std::string& uri, const char* operation) const;

  Files downloadFiles_;  // by path
  Files uploadFiles_;    // by path
  std::map<std::string, std::string> uriToPath_;
};

}  // namespace kova::ctlserver
