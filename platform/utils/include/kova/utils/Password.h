#pragma once

#include <string>

namespace kova::utils {

/// Whether `name` may be an account's name. With `strict`: [A-Za-z_][A-Za-z0-9_.-]{0,31}; without,
/// any non-empty text of at most 32 bytes that cannot break an account line. False sets `errno` to
/// EINVAL.
bool username_valid(const std::string& name, bool strict);

/// Reads the account's hash field from /etc/passwd, or from /etc/shadow when the field there is
/// "x".
/// @return 0, or an errno value (ENOENT: no such account)
int readUserHash(const std::string& user, std::string& hash);

/// Checks a password against the account's hash; a locked hash ("!" in front) matches nothing.
/// Takes as long for an absent or locked account as for one that merely has another password.
/// @param matches receives the verdict
/// @return 0 when the check could be made, else an errno value
int authenticatePassword(const std::string& user, const std::string& password, bool& matches);

/// A fresh random salt with the scheme's prefix and cost, as crypt_gensalt(3) makes it; "" on
/// failure.
std::string generateSalt();

/// The hash to store, in the format of crypt(5); "" on failure.
std::string generateHash(const char* password, const std::string& salt);

/// Puts "!" in front of the account's hash field, in the file that holds it, unless one is there.
/// False on failure.
bool lockPassword(const std::string& user);

/// Takes a leading "!" off again; an unlocked account stays as it is. False on failure.
bool unlockPassword(const std::string& user);

}  // namespace kova::utils
