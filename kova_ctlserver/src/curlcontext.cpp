#include "curlcontext.h"

#include <strings.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <limits>

#include "CallbackBarrier.h"
#include "CurlLegacy.h"
#include "ReceiveBuffer.h"
#include "TlsPinning.h"
#include "basehttp.h"
#include "kova/logger/Logger.h"
#include "kova/utils/Strings.h"
#include "kova/utils/UniqueFd.h"

namespace kova::ctlserver {
namespace {

constexpr char kLogIdentity[] = "kova_ctlserver";
constexpr char kLogUnit[] = "curlcontext";

constexpr double kLengthNotAsked = -2.0;

// An upload moves at most one buffer per pass of the main loop; libcurl's default of 64 KiB would
// limit it to 6.4 MB/s.
constexpr long kUploadBufferSize = 2L * 1024 * 1024;

// libcurl keeps milliseconds in an int and refuses larger values.
constexpr unsigned kMaxSeconds = std::numeric_limits<int>::max() / 1000;

constexpr long kMaxRedirects = 30;

constexpr char kProtocols[] = "http,https";

constexpr std::size_t kRefused = 0;  // from write and header callbacks: fewer bytes than given

/// The schemes that a transfer of `uri` may be redirected to.
const char* redirectProtocols(const std::string& uri) {
  return strncasecmp(uri.c_str(), "https:", 6) == 0 ? kTlsProtocols : kProtocols;
}

/// Clamps to LONG_MAX: the largest length that a server can announce, as a double, exceeds it by 1.
long wholeBytes(double length) {
  constexpr long kMax = std::numeric_limits<long>::max();
  return length < static_cast<double>(kMax) ? static_cast<long>(length) : kMax;
}

}  // namespace

CurlContext::CurlContext(bool download, const std::string& uri, BaseHTTP* owner,
                         const variant::Variant& formFields, unsigned int timeoutMs,
                         const std::string& certFile, const std::string& privKeyFile,
                         const std::string& caCertFile)
    : owner_(owner),
      download_(download),
      uri_(uri),
      formFields_(formFields),
      cut_(std::make_shared<volatile std::sig_atomic_t>(0)),
      contentLength_(kLengthNotAsked),
      timeoutMs_(timeoutMs),
      certFile_(certFile),
      privKeyFile_(privKeyFile),
      caCertFile_(caCertFile) {}

bool CurlContext::Init() {
  curl_.reset(curl_easy_init());
  if (curl_ == nullptr) {
    KOVA_LOG(LOG_ERR, 0, "curl_easy_init failed");
    cause_ = "libcurl gave no handle";
    return false;
  }
  if (!setBasics()) {
    return false;
  }
  setTlsFiles();
  setPeerVerification();
  if (!setTrust() || !setConnections() || !setLimits()) {
    return false;
  }
  return download_ || (buildForm() && setUpload());
}

template <typename Value>
bool CurlContext::set(CURLoption option, Value value) {
  return succeeded(curl_easy_setopt(curl_.get(), option, value));
}

bool CurlContext::succeeded(CURLcode code) {  // kept: 15
  if (code != CURLE_OK) {
    cause_ = utils::format("libcurl refused an option (%s)", curl_easy_strerror(code));
    KOVA_LOG_IN("Init", LOG_ERR, 0, "Unable to setup CURL: %d (%s)", code,
                curl_easy_strerror(code));
  }
  return code == CURLE_OK;
}

bool CurlContext::setBasics() {
  // kept: 29, 30, 31
  return set(CURLOPT_WRITEFUNCTION, &CurlContext::DataReceived) && set(CURLOPT_WRITEDATA, this) &&
         set(CURLOPT_PRIVATE, this) && set(CURLOPT_URL, uri_.c_str()) &&
         set(CURLOPT_FOLLOWLOCATION, 1L) && set(CURLOPT_SSL_VERIFYHOST, 0L) &&
         set(CURLOPT_SSL_VERIFYPEER, 0L) &&
         set(CURLOPT_TIMEOUT, static_cast<long>(std::min(timeoutMs_ / 1000, kMaxSeconds)));
}

// Results are ignored: a libcurl without one of these options fails the transfer when it needs it.
void CurlContext::setTlsFiles() {  // kept: 32
  if (!certFile_.empty()) {
    curl_easy_setopt(curl_.get(), CURLOPT_SSLCERTTYPE, "PEM");
    curl_easy_setopt(curl_.get(), CURLOPT_SSLCERT, certFile_.c_str());
  }
  if (!privKeyFile_.empty()) {
    curl_easy_setopt(curl_.get(), CURLOPT_SSLKEY, privKeyFile_.c_str());
  }
  if (!caCertFile_.empty()) {
    curl_easy_setopt(curl_.get(), CURLOPT_CAINFO, caCertFile_.c_str());
  }
}

void CurlContext::setPeerVerification() {                     // kept: 32
  curl_easy_setopt(curl_.get(), CURLOPT_SSL_VERIFYPEER, 1L);  // kept: 30
  curl_easy_setopt(curl_.get(), CURLOPT_SSL_CTX_FUNCTION, &installCertVerification);
}

// libcurl trusts the folder of authorities it was built with in addition to CURLOPT_CAINFO. It does
// not verify a reused connection or TLS session again and caches authorities for a day, so each
// would outlive a change of the trusted certificate. An upload on a reused connection is lost if
// the server is closing it.
bool CurlContext::setTrust() {
  return set(CURLOPT_CAPATH, static_cast<char*>(nullptr)) && set(CURLOPT_FRESH_CONNECT, 1L) &&
         set(CURLOPT_FORBID_REUSE, 1L) && set(CURLOPT_SSL_SESSIONID_CACHE, 0L) &&
         set(CURLOPT_CA_CACHE_TIMEOUT, 0L);
}

// HTTP/2 would let a server send empty frames forever. Proxies from the environment are ignored:
// they are not part of the camera's configuration. The guard outlives the sockets and may cut them.
bool CurlContext::setConnections() {
  const curl_closesocket_callback forget = [](void* guard, curl_socket_t fd) {
    static_cast<PumpGuard*>(guard)->forget(fd);
    return close(fd);
  };
  return set(CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_1_1)) &&
         set(CURLOPT_PROXY, "") && set(CURLOPT_OPENSOCKETFUNCTION, &CurlContext::socketWanted) &&
         set(CURLOPT_OPENSOCKETDATA, this) && set(CURLOPT_CLOSESOCKETFUNCTION, forget) &&
         set(CURLOPT_CLOSESOCKETDATA, &owner_->guard());
}

// Only HTTP(S): clients choose URIs, servers choose redirects, and libcurl's "file:" reads files.
// libcurl resolves names in a thread; without CURLOPT_QUICK_EXIT a transfer that ends early joins
// that thread and blocks the daemon until the name servers answer.
bool CurlContext::setLimits() {
  return set(CURLOPT_PROTOCOLS_STR, kProtocols) &&
         set(CURLOPT_REDIR_PROTOCOLS_STR, redirectProtocols(uri_)) &&
         set(CURLOPT_MAXREDIRS, kMaxRedirects) &&
         set(CURLOPT_HEADERFUNCTION, &CurlContext::headerReceived) &&
         set(CURLOPT_HEADERDATA, this) && set(CURLOPT_QUICK_EXIT, 1L) &&
         (download_ || set(CURLOPT_UPLOAD_BUFFERSIZE, kUploadBufferSize));
}

bool CurlContext::buildForm() {
  unsigned long size = 0;
  if (!owner_->GetUploadTotalSize(uri_, size)) {
    KOVA_LOG_IN("Init", LOG_ERR, 0, "Failed to get file source size, uri=%s", uri_.c_str());
    cause_ = "the size of the file is not known";
    return false;
  }
  if (!addStreamedPart(formPost_, "payload", this, size)) {
    // kept: 17
    KOVA_LOG_IN("Init", LOG_ERR, 0, "curl_formadd failed on filename, uri=%s", uri_.c_str());
    cause_ = "libcurl could not build the form";
    return false;
  }
  for (const auto& [key, value] : formFields_.elements()) {  // kept: 34
    if (!addField(key, value)) {
      return false;
    }
  }
  return formFields_.elements().empty() || succeeded(setForm(curl_.get(), formPost_));  // kept: 33
}

bool CurlContext::addField(const std::string& key, const variant::Variant& value) {
  if (!value.is(variant::VariantClass::String)) {
    KOVA_LOG_IN("Init", LOG_ERR, 0, "Only strings are allowed in the form fields");
    cause_ = "the form field `" + key + "` is not a string";
    return false;
  }
  if (!addTextPart(formPost_, key, value.toText())) {
    KOVA_LOG_IN("Init", LOG_ERR, 0, "curl_formadd failed on field `%s`", key.c_str());
    cause_ = "libcurl could not add the form field `" + key + "`";
    return false;
  }
  return true;
}

bool CurlContext::setUpload() {
  const curl_read_callback read = [](char* buffer, std::size_t size, std::size_t count,
                                     void* userdata) {
    return DataNeeded(buffer, size, count, userdata);
  };
  // kept: 33
  return set(CURLOPT_POST, 1L) && succeeded(setForm(curl_.get(), formPost_)) &&
         set(CURLOPT_READFUNCTION, read);
}

// Best effort: without the option, explain() falls back to curl_easy_strerror(3).
void CurlContext::keepErrorText() {
  curl_easy_setopt(curl_.get(), CURLOPT_ERRORBUFFER, errorText_.data());
}

std::string CurlContext::explain(CURLcode result) const {
  if (wasCut()) {
    return "the connection was cut because the server held up all transfers";
  }
  if (!cause_.empty()) {
    return cause_;
  }
  std::string text = errorText_[0] != '\0' ? errorText_.data() : curl_easy_strerror(result);
  if (result == CURLE_PEER_FAILED_VERIFICATION) {
    return "the server's certificate is not trusted: " + text;
  }
  long error = 0;
  if (result == CURLE_COULDNT_CONNECT &&
      curl_easy_getinfo(curl_.get(), CURLINFO_OS_ERRNO, &error) == CURLE_OK && error != 0) {
    text += utils::format(" (%s)", std::strerror(static_cast<int>(error)));
  }
  return text;
}

std::size_t CurlContext::DataReceived(char* ptr, std::size_t size, std::size_t nmemb,
                                      void* userdata) {
  return callbackBarrier(kLogUnit, __func__, kRefused, [&] {
    const std::size_t len = size * nmemb;
    auto* context = static_cast<CurlContext*>(userdata);
    return context->HandleReceived(reinterpret_cast<unsigned char*>(ptr), len) ? len : kRefused;
  });
}

bool CurlContext::HandleReceived(unsigned char* data, unsigned long len) {
  if (!download_ && bytesReceived_ + len > kMaxAnswerBytes) {
    KOVA_LOG(LOG_WARNING, 0, "The answer to the upload exceeds %d bytes, uri=%s",
             static_cast<int>(kMaxAnswerBytes), uri_.c_str());
    cause_ = utils::format("the server's answer exceeds %zu bytes", kMaxAnswerBytes);
    isOverBudget_ = true;
    return false;
  }
  if (contentLength_ <= kLengthNotAsked) {
    const CURLcode code = announcedLength(curl_.get(), contentLength_);
    if (code != CURLE_OK) {
      KOVA_LOG(LOG_ERR, 0, "curl_easy_getinfo failed: %d (%s)", code, curl_easy_strerror(code));
      return false;
    }
  }
  const bool accepted =
      owner_->SignalBytesAvailable(uri_, data, len, bytesReceived_, wholeBytes(contentLength_));
  if (accepted) {
    bytesReceived_ += len;
  }
  return accepted;
}

std::size_t CurlContext::headerReceived(char* /*ptr*/, std::size_t size, std::size_t nmemb,
                                        void* userdata) {  // kept: 15
  return callbackBarrier(kLogUnit, "HeaderReceived", kRefused, [&] {
    const std::size_t len = size * nmemb;
    return static_cast<CurlContext*>(userdata)->handleHeader(len) ? len : kRefused;
  });
}

bool CurlContext::handleHeader(unsigned long len) {  // kept: 15
  headerBytes_ += len;
  if (headerBytes_ > kMaxHeaderBytes && !isOverBudget_) {
    KOVA_LOG_IN("HandleHeader", LOG_WARNING, 0, "The headers exceed %d bytes, uri=%s",
                static_cast<int>(kMaxHeaderBytes), uri_.c_str());
    cause_ = utils::format("the server's headers exceed %zu bytes", kMaxHeaderBytes);
    isOverBudget_ = true;
  }
  return !isOverBudget_;
}

curl_socket_t CurlContext::socketWanted(void* userdata, curlsocktype /*purpose*/,
                                        curl_sockaddr* address) {  // kept: 15
  return callbackBarrier(kLogUnit, "SocketWanted", curl_socket_t{CURL_SOCKET_BAD}, [&] {
    utils::UniqueFd fd(
        socket(address->family, address->socktype | SOCK_CLOEXEC, address->protocol));
    if (fd) {
      const auto* context = static_cast<CurlContext*>(userdata);
      widenReceiveBuffer(fd.get());
      context->owner_->guard().watch(fd.get(), context->cut_);
    }
    return fd.release();
  });
}

std::size_t CurlContext::DataNeeded(void* ptr, std::size_t size, std::size_t nmemb,
                                    void* userdata) {
  return callbackBarrier(kLogUnit, __func__, std::size_t{CURL_READFUNC_ABORT}, [&] {
    auto* context = static_cast<CurlContext*>(userdata);
    return static_cast<std::size_t>(
        context->HandleNeeded(static_cast<unsigned char*>(ptr), size * nmemb));
  });
}

unsigned long CurlContext::HandleNeeded(unsigned char* buffer, unsigned long size) {
  const unsigned long filled = owner_->FillUploadBuffer(uri_, buffer, size);
  // libcurl trusts the count and would write past its buffer.
  return filled <= size ? filled : CURL_READFUNC_ABORT;
}

}  // namespace kova::ctlserver
