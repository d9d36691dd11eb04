#pragma once

#include <cstddef>
#include <string>
#include <string_view>

/// Texts of others made fit for a person and for the bus.
namespace kova::ctlserver {

/// Longer causes are cut before they are kept and searched for credentials.
inline constexpr std::size_t kMostCauseBytes = 8192;

/// `text` as UTF-8 (RFC 3629) without control characters: a line break or tab becomes a space, any
/// other is removed, and a byte that is not UTF-8 becomes U+FFFD. What exceeds `most` bytes is cut
/// between two characters and replaced by "...".
std::string displayText(std::string_view text, std::size_t most);

/// The user information of a URI (RFC 3986, 3.2.1), without its "@"; "" if there is none. Like
/// libcurl, it accepts a URI without a scheme and any number of slashes after one. If the authority
/// cannot be one, because its port is no number, all before the last "@" counts: a password may
/// hold a "/" that should have been encoded.
std::string_view userInfoOf(std::string_view uri);

/// `uri` without its user information and the "@" after it.
std::string withoutUserInfo(std::string_view uri);

/// `text` without `userInfo` wherever a "@" follows it, and without the user information of each
/// URI with a scheme that it holds.
std::string withoutCredentials(std::string text, const std::string& userInfo);

/// A clause as a sentence: with a capital letter and a full stop.
std::string sentence(std::string clause);

}  // namespace kova::ctlserver
