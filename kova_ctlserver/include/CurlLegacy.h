#pragma once

#include <string>

#include "TransferHandles.h"

/// Wraps the deprecated libcurl interfaces in use, so that only one source file suppresses the
/// compiler's warnings. libcurl keeps these interfaces for good.
namespace kova::ctlserver {

/// Appends a part of `length` bytes that the read function of the handle supplies, with `source` as
/// its user data (curl_formadd(3), CURLFORM_STREAM). It has neither a file name nor a content type.
/// Returns false if memory is exhausted.
bool addStreamedPart(FormList& form, const std::string& name, void* source, unsigned long length);

/// Appends a part with a copy of `text`. Returns false if memory is exhausted.
bool addTextPart(FormList& form, const std::string& name, const std::string& text);

/// Makes the handle send `form`, which must outlive it (CURLOPT_HTTPPOST(3)).
CURLcode setForm(CURL* curl, const FormList& form);

/// The announced length of the body in bytes, or -1 (CURLINFO_CONTENT_LENGTH_DOWNLOAD(3)).
CURLcode announcedLength(CURL* curl, double& length);

}  // namespace kova::ctlserver
