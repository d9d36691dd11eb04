#pragma once

#include <string>

#include "TransferHandles.h"

/// The older interfaces of libcurl that this program uses. They are deprecated but kept for good by
/// libcurl; the compiler's notes about them are answered in the one source file behind this header.
namespace kova::ctlserver {

/// Appends a part whose `length` bytes are asked for, through the handle's read function, with
/// `source` as its user data (curl_formadd(3), CURLFORM_STREAM). It has neither a file name nor a
/// content type. False when memory is exhausted.
bool addStreamedPart(FormList& form, const std::string& name, void* source, unsigned long length);

/// Appends a part with a copy of `text`. False when memory is exhausted.
bool addTextPart(FormList& form, const std::string& name, const std::string& text);

/// Makes the handle send `form`, which must outlive it (CURLOPT_HTTPPOST(3)).
CURLcode setForm(CURL* curl, const FormList& form);

/// The announced length of the body in bytes; -1 when the server did not announce one
/// (CURLINFO_CONTENT_LENGTH_DOWNLOAD(3)).
CURLcode announcedLength(CURL* curl, double& length);

}  // namespace kova::ctlserver
