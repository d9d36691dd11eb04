#pragma once

#include <string>

namespace kova::utils {

/// Whether `name` may be an account's name. With `strict`: [A-Za-z_][A-Za-z0-9_.-]{0,31}; without,
/// any non-empty text of at most 32 bytes that cannot break an account line. False sets `errno` to
/// EINVAL.
bool username_valid(const std::string& name, bool strict);

/// Reads the account's hash field from /etc/passwd, or from /etc/shadow when the field there is
/// "x". An account line has at least three fields; of several for one name the first counts.
/// @return 0, or an errno value (ENOENT: no such account; EFBIG: a file of more than 1 MiB)
int readUserHash(const std::string& user, std::string& hash);

/// Checks a password against the account's hash; a locked hash ("!" in front), an empty one and
/// "*" match nothing. Takes as long for an absent or locked account as for one that merely has
/// another password.
/// @param matches receives the verdict
/// @return 0 when the check could be made, else an errno value
int authenticatePassword(const std::string& user, const std::string& password, bool& matches);

/// A fresh random salt for SHA-512 ("$6$") at its default cost, as crypt_gensalt(3) makes it; ""
/// on failure. It is the strongest scheme that the login program of BusyBox checks as well.
std::string generateSalt();

/// The hash to store, in the format of crypt(5); "" on failure. Any scheme of crypt(5) may be in
/// the salt; a password has at most 511 bytes.
std::string generateHash(const char* password, const std::string& salt);

/// Puts "!" in front of the account's hash field, in the file that holds it, unless one is there.
/// The file is replaced atomically and all else in it stays. False, with `errno` set, on failure.
bool lockPassword(const std::string& user);

/// Takes a leading "!" off again; an unlocked account stays as it is. False, with `errno` set, on
/// failure, and with EINVAL when the account would be left without a password.
bool unlockPassword(const std::string& user);

}  // namespace kova::utils
