#pragma once

#include <string>

namespace kova::utils {

/// Whether `name` is a valid account name. With `strict`: [A-Za-z_][A-Za-z0-9_.-]{0,31}; without:
/// any text of 1 to 32 bytes that cannot break an account line. Sets `errno` to EINVAL when false.
bool username_valid(const std::string& name, bool strict);

/// Reads the account's hash field from /etc/passwd, or from /etc/shadow when the field there is
/// "x". An account line has at least three fields; if several lines have the same name, the first
/// counts.
/// @return 0, or an errno value (ENOENT: no such account; EFBIG: the file exceeds 1 MiB)
int readUserHash(const std::string& user, std::string& hash);

/// Checks a password against the account's hash. A locked hash ("!" in front), an empty hash and
/// "*" match no password. An absent or locked account takes as long to check as a wrong password.
/// @param matches receives whether the password matches
/// @return 0 if the password could be checked, else an errno value
int authenticatePassword(const std::string& user, const std::string& password, bool& matches);

/// A fresh random salt for SHA-512 ("$6$") at its default cost, as crypt_gensalt(3) makes it; "" on
/// failure. This is the strongest scheme that the login program of BusyBox supports.
std::string generateSalt();

/// The hash to store, in the format of crypt(5); "" on failure. The salt may name any scheme of
/// crypt(5); a password has at most 511 bytes.
std::string generateHash(const char* password, const std::string& salt);

/// Prefixes the account's hash field with "!", in the file that holds it, unless it is locked
/// already. Replaces the file atomically and keeps everything else in it. On failure returns false
/// and sets `errno`.
bool lockPassword(const std::string& user);

/// Removes a leading "!"; does nothing to an unlocked account. On failure returns false and sets
/// `errno`: EINVAL if the account would be left without a password.
bool unlockPassword(const std::string& user);

}  // namespace kova::utils
