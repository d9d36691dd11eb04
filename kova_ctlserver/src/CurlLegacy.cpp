#include "CurlLegacy.h"

// All of this is deprecated in favour of curl_mime_init(3) and the "_T" variants.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"

namespace kova::ctlserver {
namespace {

/// Lets `add` append to the list. curl_formadd sets the head when it adds the first part.
template <typename Add>
bool append(FormList& form, Add add) {
  curl_httppost* first = form.release();
  curl_httppost* last = first;
  while (last != nullptr && last->next != nullptr) {
    last = last->next;
  }
  const CURLFORMcode code = add(&first, &last);
  form.reset(first);
  return code == CURL_FORMADD_OK;
}

}  // namespace

void FormReleaser::operator()(curl_httppost* form) const {
  curl_formfree(form);
}

bool addStreamedPart(FormList& form, const std::string& name, void* source, unsigned long length) {
  return append(form, [&](curl_httppost** first, curl_httppost** last) {
    return curl_formadd(first, last, CURLFORM_COPYNAME, name.c_str(), CURLFORM_STREAM, source,
                        CURLFORM_CONTENTSLENGTH, static_cast<long>(length), CURLFORM_END);
  });
}

bool addTextPart(FormList& form, const std::string& name, const std::string& text) {
  return append(form, [&](curl_httppost** first, curl_httppost** last) {
    return curl_formadd(first, last, CURLFORM_COPYNAME, name.c_str(), CURLFORM_COPYCONTENTS,
                        text.c_str(), CURLFORM_END);
  });
}

CURLcode setForm(CURL* curl, const FormList& form) {
  return curl_easy_setopt(curl, CURLOPT_HTTPPOST, form.get());
}

CURLcode announcedLength(CURL* curl, double& length) {
  return curl_easy_getinfo(curl, CURLINFO_CONTENT_LENGTH_DOWNLOAD, &length);
}

}  // namespace kova::ctlserver

#pragma GCC diagnostic pop
