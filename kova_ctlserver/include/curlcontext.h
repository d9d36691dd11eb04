#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>

#include "PumpGuard.h"
#include "TransferHandles.h"
#include "kova/variant/Variant.h"

namespace kova::ctlserver {

class BaseHTTP;

/// One HTTP(S) transfer: an easy handle of libcurl (libcurl-easy(3)), configured for a download (a
/// GET whose body is handed to the owner chunk by chunk) or an upload (a POST of a multipart form
/// whose file part is pulled from the owner chunk by chunk).
///
/// It uses HTTP/1.1 and ignores proxies of the environment. It shares no connection with another
/// transfer, so trust is established for each. It follows at most 30 redirects, and from https only
/// to https.
///
/// It touches no file: all bytes go through the virtual operations of the owner. A context serves
/// one transfer and is never reused.
class CurlContext {
 public:
  /// Only stores the parameters.
  /// @param download    true for a download, false for an upload
  /// @param uri         http or https
  /// @param owner       receives and supplies the body; must outlive this object
  /// @param formFields  further fields of an upload's form: a string-keyed map of strings
  /// @param timeoutMs   for the whole transfer, truncated to seconds; below 1000 means none. The
  ///                    maximum is that of libcurl, 24.8 days
  /// @param certFile    client certificate, PEM; "" presents none
  /// @param privKeyFile its private key; "" means certFile
  /// @param caCertFile  the only trusted certificates, PEM; "" means libcurl's default file
  CurlContext(bool download, const std::string& uri, BaseHTTP* owner,
              const variant::Variant& formFields, unsigned int timeoutMs,
              const std::string& certFile, const std::string& privKeyFile,
              const std::string& caCertFile);
  virtual ~CurlContext() = default;  // kept: 120
  CurlContext(const CurlContext&) = delete;
  CurlContext& operator=(const CurlContext&) = delete;

  /// Creates and configures the easy handle. Must be called once, before anything else. After
  /// false, with the reason logged, the object can only be destroyed.
  ///
  /// The server's certificate must validate or equal the pinned one (see TlsPinning.h). The host
  /// name is not compared: cameras reach their server under addresses that no certificate names.
  bool Init();

  /// The easy handle; null until Init.
  CURL* GetCurl() { return curl_.get(); }
  const std::string& GetURI() const { return uri_; }

  /// Whether the guard cut the connection. The transfer has then failed, whatever libcurl reports.
  bool wasCut() const { return *cut_ != 0; }
  /// Makes libcurl store its error text for explain(). Called after Init.
  void keepErrorText();
  /// Cause of a failed transfer or a failed Init: a human-readable clause, which may contain parts
  /// of the URI.
  std::string explain(CURLcode result) const;

  /// Whether the server exceeded kMaxHeaderBytes or kMaxAnswerBytes, which is logged.
  bool isOverBudget() const { return isOverBudget_; }

  /// Limit for all headers and trailers of a transfer, including redirects and interim responses
  /// (1xx): libcurl keeps them in memory.
  static constexpr std::size_t kMaxHeaderBytes = 64UL * 1024;
  /// Limit for the response body of an upload, which is discarded, if the owner has no smaller one.
  /// It exceeds the limits of all upload tasks, which end the transfer as too large first.
  static constexpr std::size_t kMaxAnswerBytes = 16UL * 1024 * 1024;

  /// Passes one chunk of the body to the owner.
  /// @return whether the owner accepted it
  bool HandleReceived(unsigned char* data, unsigned long len);
  /// Reads up to `size` bytes of the file part from the owner.
  /// @return bytes written; 0 ends the part. CURL_READFUNC_ABORT ends the transfer; an owner that
  ///         claims more than `size` causes it, too
  unsigned long HandleNeeded(unsigned char* buffer, unsigned long size);

  /// Counts one line of a header or trailer.
  /// @return whether it is still within the budget
  bool handleHeader(unsigned long len);

  /// CURLOPT_WRITEFUNCTION(3), CURLOPT_READFUNCTION(3), CURLOPT_HEADERFUNCTION(3) and
  /// CURLOPT_OPENSOCKETFUNCTION(3); `userdata` is the context.
  static std::size_t DataReceived(char* ptr, std::size_t size, std::size_t nmemb, void* userdata);
  static std::size_t DataNeeded(void* ptr, std::size_t size, std::size_t nmemb, void* userdata);
  static std::size_t headerReceived(char* ptr, std::size_t size, std::size_t nmemb, void* userdata);
  static curl_socket_t socketWanted(void* userdata, curlsocktype purpose, curl_sockaddr* address);

 private:
  // The steps of Init, in this order.
  bool setBasics();
  void setTlsFiles();
  void setPeerVerification();
  bool setTrust();
  bool setConnections();
  bool setLimits();
  bool buildForm();
  bool addField(const std::string& key, const variant::Variant& value);
  bool setUpload();

  template <typename Value>
  bool set(CURLoption option, Value value);
  bool succeeded(CURLcode code);

  BaseHTTP* owner_;
  bool download_;
  std::string uri_;
  variant::Variant formFields_;
  FormList formPost_;
  std::uint64_t bytesReceived_ = 0;
  std::uint64_t headerBytes_ = 0;
  std::string cause_;                                 // of a failure found here, not by libcurl
  std::array<char, CURL_ERROR_SIZE> errorText_ = {};  // CURLOPT_ERRORBUFFER(3)
  bool isOverBudget_ = false;
  PumpGuard::Mark cut_;
  double contentLength_;
  std::uint32_t timeoutMs_;
  std::string certFile_;
  std::string privKeyFile_;
  std::string caCertFile_;
  EasyHandle curl_;  // destroyed first: it refers to the form and the error text
};

}  // namespace kova::ctlserver
