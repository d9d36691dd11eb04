#pragma once

#include <curl/curl.h>

#include <memory>

struct curl_httppost;

/// Owners of the C handles that the transfer engine holds.
namespace kova::ctlserver {

/// Calls a C library's own release function.
template <auto kRelease>
struct Releaser {
  template <typename Handle>
  void operator()(Handle* handle) const {
    static_cast<void>(kRelease(handle));
  }
};

using EasyHandle = std::unique_ptr<CURL, Releaser<curl_easy_cleanup>>;
using MultiHandle = std::unique_ptr<CURLM, Releaser<curl_multi_cleanup>>;

/// Frees a list made by curl_formadd(3).
struct FormReleaser {
  void operator()(curl_httppost* form) const;
};
using FormList = std::unique_ptr<curl_httppost, FormReleaser>;

}  // namespace kova::ctlserver
