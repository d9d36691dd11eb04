#include <cerrno>

#include "Platform.h"
#include "kova/utils/Password.h"

using kova::fakes::platform;

namespace kova::utils {

bool username_valid(const std::string& name, bool) {
  const bool valid = !name.empty() && name.size() <= 32 &&
                     name.find_first_not_of(
                         "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ"
                         "0123456789_.-") == std::string::npos;
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
  const std::string suffix = "$" + password;
  matches = found != accounts.hashes.end() && !found->second.starts_with("!") &&
            found->second.ends_with(suffix);
  return 0;
}

std::string generateSalt() {
  return "salt" + std::to_string(++platform().accounts.salts);
}

std::string generateHash(const char* password, const std::string& salt) {
  return salt + "$" + password;
}

bool lockPassword(const std::string& user) {
  platform().note("lockPassword " + user);
  return platform().accounts.lockResult;
}

bool unlockPassword(const std::string& user) {
  platform().note("unlockPassword " + user);
  return platform().accounts.lockResult;
}

}  // namespace kova::utils
