#pragma once

#include <cstddef>
#include <string>
#include <string_view>

/// Sanitises untrusted text for display and for the bus.
namespace kova::ctlserver {

/// Causes are truncated to this length before they are stored and searched for credentials.
inline constexpr std::size_t kMaxCauseBytes = 8192;

/// `text` as UTF-8 (RFC 3629) without control characters: a line break or tab becomes a space, any
/// other is removed, and a byte that is not UTF-8 becomes U+FFFD. A result longer than `most` bytes
/// is cut between two characters and ends with "...".
std::string displayText(std::string_view text, std::size_t most);

/// The user information of a URI (RFC 3986, 3.2.1), without its "@"; "" if there is none. Like
/// libcurl, it accepts a URI without a scheme and any number of slashes after one. If the authority
/// is malformed because its port is not a number, everything before the last "@" counts: a password
/// may contain a "/" that should have been encoded.
std::string_view userInfoOf(std::string_view uri);

/// `uri` without its user information and the "@" after it.
std::string withoutUserInfo(std::string_view uri);

/// Removes every `userInfo` that is followed by "@", and the user information of every URI with a
/// scheme, from `text`.
std::string withoutCredentials(std::string text, const std::string& userInfo);

/// Turns a clause into a sentence: capital letter, full stop.
std::string sentence(std::string clause);

}  // namespace kova::ctlserver
