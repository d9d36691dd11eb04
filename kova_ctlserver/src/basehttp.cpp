#include "basehttp.h"

#include "DisplayText.h"
#include "kova/logger/Logger.h"

namespace kova::ctlserver {
namespace {

constexpr char kLogIdentity[] = "kova_ctlserver";
constexpr char kLogUnit[] = "basehttp";

bool succeeded(CURLMcode code, const char* operation, const char* call) {
  if (code != CURLM_OK) {
    KOVA_LOG_IN(operation, LOG_ERR, 0, "%s failed: %d (%s)", call, code, curl_multi_strerror(code));
  }
  return code == CURLM_OK;
}

bool succeeded(CURLcode code, const char* operation) {
  if (code != CURLE_OK) {
    KOVA_LOG_IN(operation, LOG_ERR, 0, "curl_easy_getinfo failed: %d (%s)", code,
                curl_easy_strerror(code));
  }
  return code == CURLE_OK;
}

TransferStatus statusOf(const CurlContext& context, CURLcode result) {  // kept: 111
  if (context.wasCut()) {
    KOVA_LOG_IN("Service", LOG_WARNING, 0,
                "Connection cut because a server held all transfers, uri=%s",
                context.GetURI().c_str());
    return TRANSFER_FAILED;  // a cut may look like the end of a body without length
  }
  if (context.isOverBudget()) {
    return TRANSFER_FAILED;
  }
  switch (result) {
    case CURLE_OK:  // kept: 36
      return TRANSFER_OK;
    case CURLE_WRITE_ERROR:
    case CURLE_READ_ERROR:
      return DISK_IO_FAILED;
    case CURLE_OPERATION_TIMEDOUT:
      return TRANSFER_TIMEOUT;
    default:
      KOVA_LOG_IN("Service", LOG_WARNING, 0, "Unexpected curl error: CURLcode = %d", result);
      return TRANSFER_FAILED;
  }
}

}  // namespace

BaseHTTP::BaseHTTP() = default;

// The derived parts are gone by now. libcurl delivers no bytes while it closes connections, so none
// of the pure virtual operations is called.
BaseHTTP::~BaseHTTP() {
  const PumpGuard::Pass pass(guard_, !contexts_.empty());
  multi_.reset();  // kept: 41
}

bool BaseHTTP::Init() {
  multi_.reset(curl_multi_init());
  if (multi_ == nullptr) {
    KOVA_LOG(LOG_ERR, 0, "Unable to initiate CURLM");
    return false;
  }
  // Best effort: without the guard a server can stall the camera, but without the daemon nobody
  // can manage it.
  guard_.Init();
  return true;
}

bool BaseHTTP::RegisterRequest(bool download, const std::string& uri,
                               const variant::Variant& formFields, unsigned int timeoutMs,
                               const std::string& certFile, const std::string& privKeyFile,
                               const std::string& caCertFile) {
  if (uri.empty()) {
    KOVA_LOG(LOG_ERR, 0, "uri must be set");
    setCause("there is no URI");
    return false;
  }
  auto context = std::make_unique<CurlContext>(download, uri, this, formFields, timeoutMs, certFile,
                                               privKeyFile, caCertFile);
  if (!context->Init()) {
    KOVA_LOG(LOG_ERR, 0, "Unable to init context");
    setCause(context->explain(CURLE_FAILED_INIT));
    return false;
  }
  context->keepErrorText();
  const CURLMcode code = curl_multi_add_handle(multi_.get(), context->GetCurl());
  if (code != CURLM_OK) {
    // kept: 16
    KOVA_LOG(LOG_ERR, 0, "unable to setup CURLM: %d (%s)", code, curl_multi_strerror(code));
    setCause(curl_multi_strerror(code));
    return false;
  }
  transfers_[uri] = context.get();  // kept: 39
  contexts_.emplace(context.get(), std::move(context));
  return true;
}

bool BaseHTTP::Service(int timeoutMs) {
  if (!succeeded(curl_multi_wait(multi_.get(), nullptr, 0, timeoutMs, nullptr), __func__,
                 "curl_multi_wait")) {
    return false;
  }
  guard_.beginTurn(contexts_.size());
  if (!succeeded(perform(), __func__, "curl_multi_perform")) {
    return false;
  }
  int queued = 0;
  while (const CURLMsg* message = curl_multi_info_read(multi_.get(), &queued)) {
    if (!handleMessage(*message)) {  // kept: 38
      return false;
    }
  }
  return true;
}

CURLMcode BaseHTTP::perform() {
  const PumpGuard::Pass pass(guard_, !contexts_.empty());
  int running = 0;
  return curl_multi_perform(multi_.get(), &running);
}

// TLS reads pending data when it closes a connection, so this runs under the guard.
CURLMcode BaseHTTP::remove(CURL* curl) {
  const PumpGuard::Pass pass(guard_, true);
  return curl_multi_remove_handle(multi_.get(), curl);
}

void BaseHTTP::forget(const CurlContext& context) {
  const PumpGuard::Pass pass(guard_, true);
  contexts_.erase(&context);  // its destructor, curl_easy_cleanup(3), also removes the handle
}

void BaseHTTP::setCause(const std::string& cause) {
  cause_ = cause.substr(0, kMaxCauseBytes);
}

bool BaseHTTP::handleMessage(const CURLMsg& message) {  // kept: 15
  char* context = nullptr;
  long httpCode = 0;
  if (!succeeded(curl_easy_getinfo(message.easy_handle, CURLINFO_PRIVATE, &context), "Service") ||
      !succeeded(curl_easy_getinfo(message.easy_handle, CURLINFO_RESPONSE_CODE, &httpCode),
                 "Service")) {
    return false;
  }
  if (context == nullptr) {
    KOVA_LOG_IN("Service", LOG_ERR, 0, "Unable to retrieve the context");
    return false;
  }
  if (message.msg == CURLMSG_DONE) {
    auto& transfer = *reinterpret_cast<CurlContext*>(context);
    setCause(transfer.explain(message.data.result));
    complete(transfer, statusOf(transfer, message.data.result), httpCode);
  }
  return true;
}

void BaseHTTP::complete(CurlContext& context, TransferStatus status, long httpCode) {
  SignalTransferCompleted(context.GetURI(), status, static_cast<int>(httpCode));
  transfers_.erase(context.GetURI());
  forget(context);
}

int BaseHTTP::httpStatusOf(const std::string& uri) const {
  const auto entry = transfers_.find(uri);
  long status = 0;
  if (entry != transfers_.end()) {
    curl_easy_getinfo(entry->second->GetCurl(), CURLINFO_RESPONSE_CODE, &status);
  }
  return static_cast<int>(status);
}

bool BaseHTTP::CancelTransfer(const std::string& uri) {
  const auto entry = transfers_.find(uri);
  if (entry == transfers_.end()) {
    return true;
  }
  CurlContext* const context = entry->second;
  if (!succeeded(remove(context->GetCurl()), __func__, "curl_multi_remove_handle")) {
    return false;
  }
  long httpCode = 0;  // kept: 40
  if (!succeeded(curl_easy_getinfo(context->GetCurl(), CURLINFO_RESPONSE_CODE, &httpCode),
                 __func__)) {
    return false;
  }
  transfers_.erase(entry);
  SignalTransferCompleted(context->GetURI(), TRANSFER_CANCELLED, static_cast<int>(httpCode));
  forget(*context);
  return true;
}

}  // namespace kova::ctlserver
