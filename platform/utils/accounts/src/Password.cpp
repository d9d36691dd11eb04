#include "kova/utils/Password.h"

#include <crypt.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <memory>
#include <string_view>

#include "AccountFile.h"
#include "Errno.h"
#include "kova/utils/File.h"

namespace kova::utils {
namespace {

constexpr char kPasswd[] = "/etc/passwd";
constexpr char kShadow[] = "/etc/shadow";
constexpr std::string_view kInShadow = "x";
constexpr std::uint64_t kMaxAccountFile = std::uint64_t{1024} * 1024;
constexpr std::size_t kMaxName = 32;
constexpr char kScheme[] = "$6$";
constexpr char kLockMark = '!';

constexpr bool isLetterOrUnderscore(char c) {
  return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || c == '_';
}

constexpr bool isNameCharacter(char c) {
  return isLetterOrUnderscore(c) || (c >= '0' && c <= '9') || c == '.' || c == '-';
}

constexpr bool breaksAccountLine(char c) {
  const auto byte = static_cast<unsigned char>(c);
  return c == ':' || byte < 0x20 || byte == 0x7f;
}

// The file that holds an account's hash, and its position there.
struct Account {
  std::string path;
  std::string text;
  internal::FieldRange field;

  std::string_view hash() const { return std::string_view(text).substr(field.begin, field.length); }
};

int readAccount(const char* path, const std::string& user, Account& account) {
  account.path = path;
  if (!File::ReadStringAll(path, account.text, kMaxAccountFile)) {
    return errno;
  }
  const auto field = internal::findHashField(account.text, user);
  if (!field) {
    return ENOENT;
  }
  account.field = *field;
  return 0;
}

int findAccount(const std::string& user, Account& account) {
  if (!username_valid(user, false)) {
    return EINVAL;
  }
  const int error = readAccount(kPasswd, user, account);
  return error == 0 && account.hash() == kInShadow ? readAccount(kShadow, user, account) : error;
}

bool replaceHash(const Account& account, std::string_view hash) {
  std::string text = account.text;
  text.replace(account.field.begin, account.field.length, hash);
  File file;
  return file.Initialize(account.path, FILE_OPEN_MODE_TRUNCATE, FILE_REPLACE_ATOMICALLY) &&
         file.WriteString(text) && file.Close();
}

struct WipeCryptData {
  void operator()(crypt_data* data) const {
    explicit_bzero(data, sizeof *data);
    delete data;
  }
};

// "" if crypt(3) rejects the setting.
std::string hashWith(const char* password, const std::string& setting) {
  const std::unique_ptr<crypt_data, WipeCryptData> data(new crypt_data{});
  const char* hash = crypt_r(password, setting.c_str(), data.get());
  return hash == nullptr || hash[0] == '*' ? "" : hash;
}

// Its run time depends only on the lengths.
bool equalInConstantTime(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) {
    return false;
  }
  volatile unsigned char difference = 0;
  for (std::size_t i = 0; i < a.size(); ++i) {
    difference = static_cast<unsigned char>(difference | (a[i] ^ b[i]));
  }
  return difference == 0;
}

}  // namespace

bool username_valid(const std::string& name, bool strict) {
  bool valid = !name.empty() && name.size() <= kMaxName;
  if (valid && strict) {
    valid = isLetterOrUnderscore(name.front()) &&
            std::all_of(name.begin(), name.end(), isNameCharacter);
  } else if (valid) {
    valid = std::none_of(name.begin(), name.end(), breaksAccountLine);
  }
  return valid || failWith(EINVAL);
}

int readUserHash(const std::string& user, std::string& hash) {
  Account account;
  const int error = findAccount(user, account);
  if (error == 0) {
    hash = account.hash();
  }
  return error;
}

int authenticatePassword(const std::string& user, const std::string& password, bool& matches) {
  std::string stored;
  const int error = readUserHash(user, stored);
  const bool locked = stored.starts_with(kLockMark);
  // Every path computes one hash, with the account's own setting if it has one, so that the run
  // time reveals nothing about the account.
  const std::string setting = stored.substr(locked ? 1 : 0);
  const std::string computed = setting.empty() ? "" : hashWith(password.c_str(), setting);
  const bool computable = !computed.empty();
  if (!computable) {
    hashWith(password.c_str(), generateSalt());
  }
  // crypt(3) ignores what follows a NUL.
  const bool whole = password.find('\0') == std::string::npos;
  const bool equal = equalInConstantTime(computed, setting);
  matches = error == 0 && !locked && computable && whole && equal;
  return error;
}

std::string generateSalt() {
  std::array<char, CRYPT_GENSALT_OUTPUT_SIZE> salt;
  const char* made =
      crypt_gensalt_rn(kScheme, 0, nullptr, 0, salt.data(), static_cast<int>(salt.size()));
  return made == nullptr || made[0] == '*' ? "" : made;
}

std::string generateHash(const char* password, const std::string& salt) {
  return password == nullptr || salt.empty() ? "" : hashWith(password, salt);
}

bool lockPassword(const std::string& user) {
  Account account;
  if (const int error = findAccount(user, account); error != 0) {
    return failWith(error);
  }
  if (account.hash().starts_with(kLockMark)) {
    return true;
  }
  return replaceHash(account, kLockMark + std::string(account.hash()));
}

bool unlockPassword(const std::string& user) {
  Account account;
  if (const int error = findAccount(user, account); error != 0) {
    return failWith(error);
  }
  if (!account.hash().starts_with(kLockMark)) {
    return true;
  }
  const std::string_view hash = account.hash().substr(1);
  return hash.empty() ? failWith(EINVAL) : replaceHash(account, hash);
}

}  // namespace kova::utils
