#include <algorithm>
#include <cerrno>

#include "Platform.h"
#include "kova/utils/Password.h"

using kova::fakes::platform;

namespace kova::utils {
namespace {

/// Null, with `errno` set, if there is no such account or the test lets it fail.
std::string* hashToChange(const std::string& user) {
  auto& accounts = platform().accounts;
  const auto found = accounts.hashes.find(user);
  if (!accounts.lockResult || found == accounts.hashes.end()) {
    errno = accounts.lockResult ? ENOENT : EIO;
    return nullptr;
  }
  return &found->second;
}

}  // namespace

bool username_valid(const std::string& name, bool strict) {
  const std::string letters = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ_";
  bool valid = !name.empty() && name.size() <= 32;
  if (strict) {
    valid = valid && letters.find(name.front()) != letters.npos &&
            name.find_first_not_of(letters + "0123456789.-") == name.npos;
  } else {
    valid = valid && std::none_of(name.begin(), name.end(),
                                  [](unsigned char c) { return c == ':' || c < ' ' || c == 0x7f; });
  }
  if (!valid) {
    errno = EINVAL;
  }
  return valid;
}

int readUserHash(const std::string& user, std::string& hash) {
  const auto& accounts = platform().accounts;
  if (accounts.readResult != 0) {
    return accounts.readResult;
  }
  const auto found = accounts.hashes.find(user);
  if (found == accounts.hashes.end()) {
    return ENOENT;
  }
  hash = found->second;
  return 0;
}

int authenticatePassword(const std::string& user, const std::string& password, bool& matches) {
  auto& accounts = platform().accounts;
  platform().note("authenticatePassword " + user);
  matches = false;
  if (!accounts.authenticateResults.empty()) {
    const int result = accounts.authenticateResults.front();
    accounts.authenticateResults.erase(accounts.authenticateResults.begin());
    if (result != 0) {
      return result;
    }
  }
  const auto found = accounts.hashes.find(user);
  if (found == accounts.hashes.end()) {
    return ENOENT;
  }
  const std::string& hash = found->second;
  const std::size_t separator = hash.find('$');
  matches =
      !hash.starts_with('!') && separator != hash.npos && hash.substr(separator + 1) == password;
  return 0;
}

std::string generateSalt() {
  if (!platform().accounts.saltResult) {
    return "";
  }
  return "salt" + std::to_string(++platform().accounts.salts);
}

std::string generateHash(const char* password, const std::string& salt) {
  return salt.empty() ? "" : salt + "$" + password;
}

bool lockPassword(const std::string& user) {
  platform().note("lockPassword " + user);
  std::string* hash = hashToChange(user);
  if (hash != nullptr && !hash->starts_with('!')) {
    hash->insert(0, "!");
  }
  return hash != nullptr;
}

bool unlockPassword(const std::string& user) {
  platform().note("unlockPassword " + user);
  std::string* hash = hashToChange(user);
  if (hash == nullptr || *hash == "!") {
    errno = hash == nullptr ? ENOENT : EINVAL;
    return false;
  }
  if (hash->starts_with('!')) {
    hash->erase(0, 1);
  }
  return true;
}

}  // namespace kova::utils
