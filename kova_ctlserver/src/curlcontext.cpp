#include "curlcontext.h"

#include <limits>

#include "CallbackBarrier.h"
#include "CurlLegacy.h"
#include "TlsPinning.h"
#include "basehttp.h"
#include "kova/logger/Logger.h"

namespace kova::ctlserver {
namespace {

constexpr char kLogIdentity[] = "kova_ctlserver";
constexpr char kLogUnit[] = "curlcontext";

constexpr double kLengthNotAsked = -2.0;

// The main loop pumps a transfer once a pass, and an upload moves at most one buffer a pass:
// libcurl's default of 64 KiB would hold it to 6.4 MB/s.
constexpr long kUploadBufferSize = 2L * 1024 * 1024;

constexpr char kProtocols[] = "http,https";

/// The largest length that a server can announce rounds, as a double, to one more than a long
/// holds.
long wholeBytes(double length) {
  constexpr long kMost = std::numeric_limits<long>::max();
  return length < static_cast<double>(kMost) ? static_cast<long>(length) : kMost;
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
      contentLength_(kLengthNotAsked),
      timeoutMs_(timeoutMs),
      certFile_(certFile),
      privKeyFile_(privKeyFile),
      caCertFile_(caCertFile) {}

CurlContext::~CurlContext() {
  curl_.reset();  // refers to the form
  formPost_.reset();
}

bool CurlContext::Init() {
  curl_.reset(curl_easy_init());
  if (curl_ == nullptr) {
    KOVA_LOG(LOG_ERR, 0, "curl_easy_init failed");
    return false;
  }
  if (!SetBasics()) {
    return false;
  }
  SetTlsFiles();
  SetPeerVerification();
  if (!SetLimits()) {
    return false;
  }
  return download_ || (BuildForm() && SetUpload());
}

template <typename Value>
bool CurlContext::Set(CURLoption option, Value value) {
  return Succeeded(curl_easy_setopt(curl_.get(), option, value));
}

bool CurlContext::Succeeded(CURLcode code) const {
  if (code != CURLE_OK) {
    KOVA_LOG_IN("Init", LOG_ERR, 0, "Unable to setup CURL: %d (%s)", code,
                curl_easy_strerror(code));
  }
  return code == CURLE_OK;
}

bool CurlContext::SetBasics() {
  return Set(CURLOPT_WRITEFUNCTION, &CurlContext::DataReceived) && Set(CURLOPT_WRITEDATA, this) &&
         Set(CURLOPT_PRIVATE, this) && Set(CURLOPT_URL, uri_.c_str()) &&
         Set(CURLOPT_FOLLOWLOCATION, 1L) && Set(CURLOPT_SSL_VERIFYHOST, 0L) &&
         Set(CURLOPT_SSL_VERIFYPEER, 0L) &&
         Set(CURLOPT_TIMEOUT, static_cast<long>(timeoutMs_ / 1000));
}

// A build of libcurl that lacks one of these refuses the transfer itself when it comes to need it.
void CurlContext::SetTlsFiles() {
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

void CurlContext::SetPeerVerification() {
  curl_easy_setopt(curl_.get(), CURLOPT_SSL_VERIFYPEER, 1L);
  curl_easy_setopt(curl_.get(), CURLOPT_SSL_CTX_FUNCTION, &installCertVerification);
}

// libcurl speaks many protocols, some of which read local files: the URI is a client's choice, and
// where it redirects to is the server's. It looks names up in a thread, which a transfer that ends
// early would join: with name servers that do not answer, the whole daemon would stand still.
bool CurlContext::SetLimits() {
  return Set(CURLOPT_PROTOCOLS_STR, kProtocols) && Set(CURLOPT_REDIR_PROTOCOLS_STR, kProtocols) &&
         Set(CURLOPT_QUICK_EXIT, 1L) &&
         (download_ || Set(CURLOPT_UPLOAD_BUFFERSIZE, kUploadBufferSize));
}

bool CurlContext::BuildForm() {
  unsigned long size = 0;
  if (!owner_->GetUploadTotalSize(uri_, size)) {
    KOVA_LOG_IN("Init", LOG_ERR, 0, "Failed to get file source size, uri=%s", uri_.c_str());
    return false;
  }
  if (!addStreamedPart(formPost_, "payload", this, size)) {
    KOVA_LOG_IN("Init", LOG_ERR, 0, "curl_formadd failed on filename, uri=%s", uri_.c_str());
    return false;
  }
  for (const auto& [key, value] : formFields_.Elements()) {
    if (!value.Is(variant::VariantClass::String)) {
      KOVA_LOG_IN("Init", LOG_ERR, 0, "Only strings are allowed in the form fields");
      return false;
    }
    if (!addTextPart(formPost_, key, value.ToText())) {
      KOVA_LOG_IN("Init", LOG_ERR, 0, "curl_formadd failed on field `%s`", key.c_str());
      return false;
    }
  }
  return formFields_.Elements().empty() || Succeeded(setForm(curl_.get(), formPost_));
}

bool CurlContext::SetUpload() {
  const curl_read_callback read = [](char* buffer, std::size_t size, std::size_t count,
                                     void* userdata) {
    return DataNeeded(buffer, size, count, userdata);
  };
  return Set(CURLOPT_POST, 1L) && Succeeded(setForm(curl_.get(), formPost_)) &&
         Set(CURLOPT_READFUNCTION, read);
}

std::size_t CurlContext::DataReceived(char* ptr, std::size_t size, std::size_t nmemb,
                                      void* userdata) {
  return callbackBarrier(kLogUnit, __func__, std::size_t{0}, [&] {
    const std::size_t len = size * nmemb;
    auto* context = static_cast<CurlContext*>(userdata);
    return context->HandleReceived(reinterpret_cast<unsigned char*>(ptr), len) ? len : 0;
  });
}

bool CurlContext::HandleReceived(unsigned char* data, unsigned long len) {
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

std::size_t CurlContext::DataNeeded(void* ptr, std::size_t size, std::size_t nmemb,
                                    void* userdata) {
  return callbackBarrier(kLogUnit, __func__, std::size_t{CURL_READFUNC_ABORT}, [&] {
    auto* context = static_cast<CurlContext*>(userdata);
    return static_cast<std::size_t>(
        context->HandleNeeded(static_cast<unsigned char*>(ptr), size * nmemb));
  });
}

unsigned long CurlContext::HandleNeeded(unsigned char* buffer, unsigned long size) {
  return owner_->FillUploadBuffer(uri_, buffer, size);
}

}  // namespace kova::ctlserver
