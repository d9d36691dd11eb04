#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "TransferHandles.h"
#include "kova/variant/Variant.h"

namespace kova::ctlserver {

class BaseHTTP;

/// One HTTP(S) transfer: an easy handle of libcurl (libcurl-easy(3)), configured for a download (a
/// GET whose body is handed to the owner chunk by chunk) or an upload (a POST of a multipart form
/// whose file part is pulled from the owner chunk by chunk).
///
/// It touches no file: every byte goes through the owner's virtual operations. A context serves one
/// transfer and is never reused.
class CurlContext {
 public:
  /// Only stores the parameters.
  /// @param download    true for a download, false for an upload
  /// @param uri         http or https
  /// @param owner       receives and supplies the body; must outlive this object
  /// @param formFields  further fields of an upload's form: a string-keyed map of strings
  /// @param timeoutMs   for the whole transfer, cut to whole seconds; below 1000 means none
  /// @param certFile    client certificate, PEM; "" presents none
  /// @param privKeyFile its private key; "" looks for it in certFile
  /// @param caCertFile  trusted certificates, PEM; "" means the system's
  CurlContext(bool download, const std::string& uri, BaseHTTP* owner,
              const variant::Variant& formFields, unsigned int timeoutMs,
              const std::string& certFile, const std::string& privKeyFile,
              const std::string& caCertFile);
  virtual ~CurlContext();
  CurlContext(const CurlContext&) = delete;
  CurlContext& operator=(const CurlContext&) = delete;

  /// Creates and configures the easy handle; once, before anything else. False, with the reason
  /// logged, leaves an object that can only be destroyed.
  ///
  /// The server's certificate must validate or equal the pinned one (see TlsPinning.h); its host
  /// name is never compared: cameras reach their server under addresses that no certificate names.
  bool Init();

  /// The easy handle; null until Init.
  CURL* GetCurl() { return curl_.get(); }
  const std::string& GetURI() const { return uri_; }

  /// Hands one chunk of downloaded body to the owner.
  /// @return whether the owner accepted it
  bool HandleReceived(unsigned char* data, unsigned long len);
  /// Asks the owner for up to `size` bytes of the file part.
  /// @return bytes written; 0 ends the part, CURL_READFUNC_ABORT the transfer
  unsigned long HandleNeeded(unsigned char* buffer, unsigned long size);

  /// CURLOPT_WRITEFUNCTION(3) and CURLOPT_READFUNCTION(3); `userdata` is the context.
  static std::size_t DataReceived(char* ptr, std::size_t size, std::size_t nmemb, void* userdata);
  static std::size_t DataNeeded(void* ptr, std::size_t size, std::size_t nmemb, void* userdata);

 private:
  // The steps of Init, in their order.
  bool SetBasics();
  void SetTlsFiles();
  void SetPeerVerification();
  bool SetLimits();
  bool BuildForm();
  bool SetUpload();

  template <typename Value>
  bool Set(CURLoption option, Value value);
  bool Succeeded(CURLcode code) const;

  BaseHTTP* owner_;
  bool download_;
  std::string uri_;
  variant::Variant formFields_;
  EasyHandle curl_;
  std::uint64_t bytesReceived_ = 0;
  double contentLength_;
  FormList formPost_;
  std::uint32_t timeoutMs_;
  std::string certFile_;
  std::string privKeyFile_;
  std::string caCertFile_;
};

}  // namespace kova::ctlserver
