#include "multihttp.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "kova/logger/Logger.h"

namespace kova::ctlserver {
namespace {

constexpr char kLogIdentity[] = "kova_ctlserver";
constexpr char kLogUnit[] = "multihttp";
constexpr char kRegisterRequest[] = "RegisterRequest";

bool holdsNul(const std::string& text) {
  return text.find('\0') != std::string::npos;
}

/// libcurl stops at the first NUL and would use a URI or field other than the one given.
bool textsAreWhole(const std::string& uri, const variant::Variant& formFields, std::string& cause) {
  if (holdsNul(uri)) {
    KOVA_LOG_IN(kRegisterRequest, LOG_ERR, 0, "The URI holds a NUL, uri=%s", uri.c_str());
    cause = "the URI holds a NUL";
    return false;
  }
  for (const auto& [key, value] : formFields.elements()) {
    if (holdsNul(key) || (value.is(variant::VariantClass::String) && holdsNul(value.toText()))) {
      KOVA_LOG_IN(kRegisterRequest, LOG_ERR, 0, "The form field `%s` holds a NUL", key.c_str());
      cause = "the form field `" + key + "` holds a NUL";
      return false;
    }
  }
  return true;
}

}  // namespace

MultiHTTP::~MultiHTTP() {
  downloadFiles_.clear();
  uploadFiles_.clear();
  uriToPath_.clear();
}

bool MultiHTTP::RegisterRequest(bool download, const std::string& uri, const std::string& path,
                                const variant::Variant& formFields, unsigned int timeoutMs,
                                const std::string& certFile, const std::string& privKeyFile,
                                const std::string& caCertFile) {
  if (uri.empty() || path.empty()) {
    KOVA_LOG(LOG_ERR, 0, "Invalid input, uri=%s, path=%s", uri.c_str(), path.c_str());
    setCause(uri.empty() ? "there is no URI" : "there is no file to transfer");
    return false;
  }
  Files& files = download ? downloadFiles_ : uploadFiles_;
  if (uriToPath_.contains(uri) || files.contains(path)) {
    KOVA_LOG(LOG_ERR, 0, "File or URI already in progress, uri=%s, path=%s", uri.c_str(),
             path.c_str());
    setCause("the URI or the file " + path +
             " is in use by another transfer, or held by one that could not start; "
             "`kovactl exit-service` frees it");
    return false;
  }
  // Check before the file is recorded: a refusal after that leaves the file in use.
  std::string cause;
  if (!textsAreWhole(uri, formFields, cause)) {
    setCause(cause);
    return false;
  }
  auto file = std::make_unique<utils::File>();
  const auto mode = download ? utils::FILE_OPEN_MODE_TRUNCATE : utils::FILE_OPEN_MODE_READ;
  if (!file->Initialize(path, mode, 0)) {  // kept: 44
    setCause("the file " + path + " cannot be opened: " + std::strerror(errno));
    return false;
  }
  uriToPath_[uri] = path;
  files[path] = std::move(file);
  // kept: 42
  return BaseHTTP::RegisterRequest(download, uri, formFields, timeoutMs, certFile, privKeyFile,
                                   caCertFile);
}

bool MultiHTTP::SignalBytesAvailable(const std::string& uri, unsigned char* data, unsigned long len,
                                     unsigned long /*offset*/, long /*total*/) {
  const auto entry = uriToPath_.find(uri);
  if (entry == uriToPath_.end()) {
    KOVA_LOG(LOG_ERR, 0, "Uri not tracked, uri=%s", uri.c_str());
    errno = EBADF;  // the reason that TransferService reports
    return false;
  }
  const auto file = downloadFiles_.find(entry->second);
  return file == downloadFiles_.end() || file->second->WriteBuffer(data, len);
}

utils::File* MultiHTTP::uploadFile(const std::string& uri, const char* operation) const {
  const auto entry = uriToPath_.find(uri);
  if (entry == uriToPath_.end()) {
    KOVA_LOG_IN(operation, LOG_ERR, 0, "Uri not tracked, uri=%s", uri.c_str());
    return nullptr;
  }
  const auto file = uploadFiles_.find(entry->second);
  if (file == uploadFiles_.end()) {
    KOVA_LOG_IN(operation, LOG_ERR, 0, "Uri does not have associated file source, uri=%s",
                uri.c_str());
    return nullptr;
  }
  return file->second.get();
}

bool MultiHTTP::GetUploadTotalSize(const std::string& uri, unsigned long& size) {
  const utils::File* file = uploadFile(uri, __func__);
  if (file == nullptr) {
    return false;
  }
  size = file->Size();
  return true;
}

unsigned long MultiHTTP::FillUploadBuffer(const std::string& uri, unsigned char* buffer,
                                          unsigned long size) {
  utils::File* file = uploadFile(uri, __func__);
  if (file == nullptr) {
    return CURL_READFUNC_ABORT;
  }
  const unsigned long count = std::min<unsigned long>(size, file->Size() - file->Cursor());
  if (count != 0 && !file->ReadBuffer(buffer, count)) {
    const int error = errno;
    KOVA_LOG(LOG_ERR, error, "Error reading file, uri=%s", uri.c_str());  // kept: 37
    noteRead(uri, *file, error);
    return CURL_READFUNC_ABORT;
  }
  noteRead(uri, *file, 0);
  return count;
}

void MultiHTTP::noteRead(const std::string& /*uri*/, const utils::File& /*file*/, int /*error*/) {}

void MultiHTTP::SignalTransferCompleted(const std::string& uri, TransferStatus /*status*/,
                                        int /*httpCode*/) {
  const auto entry = uriToPath_.find(uri);
  if (entry == uriToPath_.end()) {
    KOVA_LOG(LOG_WARNING, 0, "Uri not tracked, uri=%s", uri.c_str());
    return;
  }
  downloadFiles_.erase(entry->second);  // kept: 43
  uploadFiles_.erase(entry->second);
  uriToPath_.erase(entry);
}

}  // namespace kova::ctlserver
