#include "CurlFaults.h"

#include <openssl/ssl.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstdarg>
#include <cstring>

// The wrapped form calls and CURLINFO_CONTENT_LENGTH_DOWNLOAD are deprecated.
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"

namespace kova::engine {

const CURLINFO kLengthInformation = CURLINFO_CONTENT_LENGTH_DOWNLOAD;

CurlFaults& curlFaults() {
  static CurlFaults faults;
  return faults;
}

unsigned CurlFaults::asked(CURLINFO information) const {
  return static_cast<unsigned>(std::count(informations.begin(), informations.end(), information));
}

namespace {

std::string describe(CURLoption option, long value) {
  const curl_easyoption* known = curl_easy_option_by_id(option);
  std::string text = std::string(known->name) + "=";
  switch (known->type) {
    case CURLOT_LONG:
    case CURLOT_VALUES:
    case CURLOT_OFF_T:
      return text + std::to_string(value);
    case CURLOT_STRING:
      return text + (value == 0 ? "(null)" : reinterpret_cast<const char*>(value));
    default:
      return text + "...";
  }
}

bool optionFails(CURLoption option) {
  CurlFaults& faults = curlFaults();
  return faults.option == option || faults.failingOption == faults.optionsAsked++;
}

}  // namespace
}  // namespace kova::engine

using kova::engine::curlFaults;

// The linker prescribes the names (ld(1), --wrap).
extern "C" {

CURL* __real_curl_easy_init();
CURL* __wrap_curl_easy_init() {
  return curlFaults().easyInit ? nullptr : __real_curl_easy_init();
}

CURLM* __real_curl_multi_init();
CURLM* __wrap_curl_multi_init() {
  return curlFaults().multiInit ? nullptr : __real_curl_multi_init();
}

CURLMcode __real_curl_multi_wait(CURLM*, curl_waitfd*, unsigned, int, int*);
CURLMcode __wrap_curl_multi_wait(CURLM* multi, curl_waitfd* extra, unsigned count, int timeout,
                                 int* ready) {
  curlFaults().waits.push_back(timeout);
  const CURLMcode fault = curlFaults().wait;
  return fault != CURLM_OK ? fault : __real_curl_multi_wait(multi, extra, count, timeout, ready);
}

CURLMcode __real_curl_multi_perform(CURLM*, int*);
CURLMcode __wrap_curl_multi_perform(CURLM* multi, int* running) {
  const CURLMcode fault = curlFaults().perform;
  return fault != CURLM_OK ? fault : __real_curl_multi_perform(multi, running);
}

CURLMcode __real_curl_multi_add_handle(CURLM*, CURL*);
CURLMcode __wrap_curl_multi_add_handle(CURLM* multi, CURL* easy) {
  const CURLMcode fault = curlFaults().addHandle;
  return fault != CURLM_OK ? fault : __real_curl_multi_add_handle(multi, easy);
}

CURLMcode __real_curl_multi_remove_handle(CURLM*, CURL*);
CURLMcode __wrap_curl_multi_remove_handle(CURLM* multi, CURL* easy) {
  const CURLMcode fault = curlFaults().removeHandle;
  return fault != CURLM_OK ? fault : __real_curl_multi_remove_handle(multi, easy);
}

CURLMsg* __real_curl_multi_info_read(CURLM*, int*);
CURLMsg* __wrap_curl_multi_info_read(CURLM* multi, int* left) {
  CURLMsg* message = __real_curl_multi_info_read(multi, left);
  if (message != nullptr) {
    message->data.result = curlFaults().result.value_or(message->data.result);
  }
  return message;
}

// Every option takes one argument, of the size of a long. These take an int, because va_start()
// after an enumeration is undefined.
CURLcode __real_curl_easy_setopt(CURL*, CURLoption, ...);
CURLcode __wrap_curl_easy_setopt(CURL* easy, int number, ...) {
  const auto option = static_cast<CURLoption>(number);
  va_list arguments;
  va_start(arguments, number);
  const long value = va_arg(arguments, long);
  va_end(arguments);
  if (kova::engine::optionFails(option)) {
    return CURLE_OUT_OF_MEMORY;
  }
  curlFaults().options.push_back(kova::engine::describe(option, value));
  return __real_curl_easy_setopt(easy, option, value);
}

CURLcode __real_curl_easy_getinfo(CURL*, CURLINFO, ...);
CURLcode __wrap_curl_easy_getinfo(CURL* easy, int number, ...) {
  const auto information = static_cast<CURLINFO>(number);
  va_list arguments;
  va_start(arguments, number);
  void* const target = va_arg(arguments, void*);
  va_end(arguments);
  kova::engine::CurlFaults& faults = curlFaults();
  faults.informations.push_back(information);
  if (faults.info == information) {
    return CURLE_UNKNOWN_OPTION;
  }
  if (information == CURLINFO_PRIVATE && faults.privateIsNull) {
    *static_cast<char**>(target) = nullptr;
    return CURLE_OK;
  }
  return __real_curl_easy_getinfo(easy, information, target);
}

CURLFORMcode __real_curl_formadd(curl_httppost**, curl_httppost**, ...);
CURLFORMcode __wrap_curl_formadd(curl_httppost** first, curl_httppost** last, ...) {
  std::vector<curl_forms> forms;
  va_list arguments;
  va_start(arguments, last);
  int option;
  while ((option = va_arg(arguments, int)) != CURLFORM_END) {
    forms.push_back({static_cast<CURLformoption>(option),
                     reinterpret_cast<const char*>(va_arg(arguments, long))});
  }
  va_end(arguments);
  forms.push_back({CURLFORM_END, nullptr});
  if (curlFaults().part == forms.front().value) {
    return CURL_FORMADD_MEMORY;
  }
  return __real_curl_formadd(first, last, CURLFORM_ARRAY, forms.data(), CURLFORM_END);
}

int __real_setsockopt(int, int, int, const void*, socklen_t);
int __wrap_setsockopt(int fd, int level, int option, const void* value, socklen_t size) {
  if (level == SOL_SOCKET && (option == SO_RCVBUF || option == SO_RCVBUFFORCE)) {
    curlFaults().socketOptions.push_back((option == SO_RCVBUF ? "RCVBUF=" : "RCVBUFFORCE=") +
                                         std::to_string(*static_cast<const int*>(value)));
  }
  return __real_setsockopt(fd, level, option, value, size);
}

void __real_SSL_CTX_set_msg_callback(SSL_CTX*, kova::engine::MessageCallback);
void __wrap_SSL_CTX_set_msg_callback(SSL_CTX* context, kova::engine::MessageCallback callback) {
  curlFaults().messageCallback = callback;
  if (!curlFaults().messagesUnwatched) {
    __real_SSL_CTX_set_msg_callback(context, callback);
  }
}

int __real_timer_delete(timer_t);
int __wrap_timer_delete(timer_t timer) {
  curlFaults().released.emplace_back("timer");
  return __real_timer_delete(timer);
}

void __real_curl_easy_cleanup(CURL*);
void __wrap_curl_easy_cleanup(CURL* easy) {
  curlFaults().released.emplace_back("easy");
  __real_curl_easy_cleanup(easy);
}

CURLMcode __real_curl_multi_cleanup(CURLM*);
CURLMcode __wrap_curl_multi_cleanup(CURLM* multi) {
  curlFaults().released.emplace_back("multi");
  return __real_curl_multi_cleanup(multi);
}

void __real_curl_formfree(curl_httppost*);
void __wrap_curl_formfree(curl_httppost* form) {
  curlFaults().released.emplace_back("form");
  __real_curl_formfree(form);
}

}  // extern "C"
