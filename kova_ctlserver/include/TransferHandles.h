#pragma once

#include <curl/curl.h>

#include <memory>

#include "kova/utils/Handle.h"

struct curl_httppost;

/// Owners of the C handles that the transfer engine holds.
namespace kova::ctlserver {

using EasyHandle = utils::Handle<CURL, curl_easy_cleanup>;
using MultiHandle = utils::Handle<CURLM, curl_multi_cleanup>;

/// Frees a list made by curl_formadd(3). Defined in CurlLegacy.cpp.
struct FormReleaser {
  void operator()(curl_httppost* form) const;
};
using FormList = std::unique_ptr<curl_httppost, FormReleaser>;

}  // namespace kova::ctlserver
