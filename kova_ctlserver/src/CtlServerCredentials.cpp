#include <cerrno>
#include <cstring>

#include "CtlServer.h"
#include "kova/logger/Logger.h"
#include "kova/syscfg/SystemCfgManager.h"
#include "kova/utils/File.h"
#include "kova/utils/Password.h"
#include "kova/utils/Secret.h"
#include "kova/utils/Strings.h"

namespace kova::ctlserver {
namespace {

using ipc::messages::ChangeUsernamePassword;
using ipc::messages::isGiven;
using syscfg::SystemCfgManager;
using utils::Secret;
using variant::Variant;

constexpr char kLogIdentity[] = "kova_ctlserver";
constexpr char kLogUnit[] = "CtlServer";
constexpr char kChange[] = "changeUsernamePassword";
constexpr char kProcess[] = "ProcessUsernamePassword";  // kept: 15

constexpr char kUserNameKey[] = "users.1.name";
constexpr char kPasswordKey[] = "users.1.password";
constexpr char kAccountFile[] = "/etc/passwd";
constexpr std::size_t kMaxPasswordBytes = 64;
constexpr char kLockMarker = '!';

bool fail(const char* operation, const char* text, int error = 0, int line = __builtin_LINE()) {
  KOVA_LOG_LINE(line, operation, LOG_ERR, error, "%s", text);
  return false;
}

bool failAuthentication(const std::string& user, int line = __builtin_LINE()) {
  KOVA_LOG_LINE(line, kChange, LOG_ERR, 0, "Authentication failure for user %s", user.c_str());
  return false;
}

bool openStore(const char* operation, SystemCfgManager& store) {
  return store.init() || fail(operation, "Failed to initialize system.cfg manager");
}

bool closeStore(const char* operation, SystemCfgManager& store) {
  return store.close(true, false) || fail(operation, "Failed to close system.cfg manager");
}

bool readName(const char* operation, const SystemCfgManager& store, std::string& name) {
  bool absent = false;
  if (!store.get(kUserNameKey, &name, &absent)) {
    return fail(operation, "Failed to read username");
  }
  return !absent || fail(operation, "Username missing from the system.cfg");
}

bool readPassword(const char* operation, const SystemCfgManager& store, std::string& hash) {
  bool absent = false;
  if (!store.get(kPasswordKey, &hash, &absent)) {
    return fail(operation, "Failed to read password");
  }
  return !absent || fail(operation, "Password missing from the system.cfg");
}

bool checkCredentialFields(const std::string& username, const std::string& passwordOld) {
  if (!isGiven(username) || !isGiven(passwordOld)) {
    return fail(kChange, "Username and old password must be present");
  }
  if (passwordOld.empty()) {
    return fail(kChange, "Old password empty");
  }
  if (passwordOld.size() > kMaxPasswordBytes) {
    return fail(kChange, "Old password too long");
  }
  return utils::username_valid(username, true) ||
         fail(kChange, "Failed to validate username", errno);
}

/// @param hash receives the current hash of the account
bool authenticate(const std::string& user, const std::string& password, std::string& hash) {
  if (utils::readUserHash(user, hash) != 0) {
    // Hash anyway: a quick answer would reveal that the account does not exist.
    utils::generateHash(password.c_str(), utils::generateSalt());
    KOVA_LOG_IN(kChange, LOG_ERR, 0, "Failed to read password hash for username %s", user.c_str());
    return false;
  }
  bool matches = false;
  return (utils::authenticatePassword(user, password, matches) == 0 && matches) ||
         failAuthentication(user);  // kept: 20
}

/// @param hash    receives a hash of the new password with a fresh salt, also when the password is
///                the current one
/// @param changes receives whether the password differs from the current one
bool hashNewPassword(const std::string& user, const std::string& password, std::string& hash,
                     bool& changes) {
  if (password.empty()) {
    return fail(kChange, "New password empty");
  }
  if (password.size() > kMaxPasswordBytes) {
    return fail(kChange, "New password too long");
  }
  bool matches = false;
  if (utils::authenticatePassword(user, password, matches) != 0) {
    return failAuthentication(user);
  }
  changes = !matches;
  // crypt(3) stops at a NUL, and an empty hash in the account file would admit anyone.
  const bool whole = password.find('\0') == std::string::npos;
  hash = whole ? utils::generateHash(password.c_str(), utils::generateSalt()) : "";
  return !hash.empty() || fail(kChange, "Failed to hash the new password");  // kept: 116
}

bool writeAccountFile(const std::string& name, const std::string& hash) {  // kept: 86, 117
  utils::File file;
  if (!file.Initialize(kAccountFile, utils::FILE_OPEN_MODE_TRUNCATE,
                       utils::FILE_REPLACE_ATOMICALLY)) {
    return fail(kChange, "Failed to open /etc/passwd", errno);
  }
  const auto line = utils::format("%s:%s:0:0:Administrator:/etc/persistent:/bin/sh\n", name.c_str(),
                                  hash.c_str());
  return (file.WriteString(line) && file.Close()) ||
         fail(kChange, "Failed to write to /etc/passwd", errno);
}

/// Locks or unlocks the administrator's password, in the store and in the system's account.
class UsernamePasswordProcessor {
 public:
  explicit UsernamePasswordProcessor(char lockMarker) : lockMarker_(lockMarker) {}
  virtual ~UsernamePasswordProcessor() = default;

  /// The stored hash is authoritative; a failure of the system's account is only logged.
  virtual bool Process(const std::string& user, std::string& passwordHash) = 0;  // kept: 89

 protected:
  const char lockMarker_;
};

class UsernamePasswordUnlocker : public UsernamePasswordProcessor {
 public:
  using UsernamePasswordProcessor::UsernamePasswordProcessor;

  bool Process(const std::string& user, std::string& passwordHash) override {
    if (!passwordHash.starts_with(lockMarker_)) {
      return true;
    }
    passwordHash.erase(0, 1);
    if (!utils::unlockPassword(user)) {
      KOVA_LOG(LOG_WARNING, 0, "Failed to unlock user: %s", user.c_str());
    }
    return true;
  }
};

class UsernamePasswordLocker : public UsernamePasswordProcessor {
 public:
  using UsernamePasswordProcessor::UsernamePasswordProcessor;

  bool Process(const std::string& user, std::string& passwordHash) override {
    if (passwordHash.starts_with(lockMarker_)) {
      return true;
    }
    passwordHash.insert(passwordHash.begin(), lockMarker_);
    if (!utils::lockPassword(user)) {
      KOVA_LOG(LOG_WARNING, 0, "Failed to lock user: %s", user.c_str());
    }
    return true;
  }
};

bool ProcessUsernamePassword(UsernamePasswordProcessor&& processor) {
  SystemCfgManager store;
  std::string name;
  std::string hash;
  if (!openStore(kProcess, store) || !readName(kProcess, store, name) ||
      !readPassword(kProcess, store, hash) || !processor.Process(name, hash)) {
    return false;
  }
  if (!store.set(kPasswordKey, hash, nullptr)) {  // kept: 91
    return fail(kProcess, "Failed to update password");
  }
  return closeStore(kProcess, store);
}

}  // namespace

bool CtlServer::changeUsernamePassword(ChangeUsernamePassword& request, Variant& reply) {
  SystemCfgManager store;
  std::string storedName;
  if (!openStore(kChange, store) || !readName(kChange, store, storedName)) {
    return false;
  }
  const std::string username = request.username();
  const Secret passwordOld{request.passwordOld()};
  const Secret passwordNew{request.passwordNew()};
  if (!isGiven(username) && !isGiven(passwordNew.text) && !isGiven(passwordOld.text)) {
    reply["username"] = storedName;
    return true;
  }
  if (!checkCredentialFields(username, passwordOld.text)) {
    return false;
  }
  reply.Reset();  // kept: 90
  std::string hash;
  bool passwordChanges = false;
  if (!authenticate(storedName, passwordOld.text, hash) ||
      (isGiven(passwordNew.text) &&
       !hashNewPassword(storedName, passwordNew.text, hash, passwordChanges))) {
    return false;
  }
  const bool nameChanges = username != storedName;
  if (!nameChanges && !passwordChanges) {  // kept: 88
    return true;
  }
  if (nameChanges && !store.set(kUserNameKey, username, nullptr)) {
    return fail(kChange, "Failed to update username");
  }
  if (passwordChanges && !store.set(kPasswordKey, hash, nullptr)) {  // kept: 87
    return fail(kChange, "Failed to update password");               // kept: 83
  }
  return closeStore(kChange, store) && writeAccountFile(username, hash);
}

bool CtlServer::enableUsernamePassword(ipc::messages::EnableUsernamePassword&, Variant&) {
  return ProcessUsernamePassword(UsernamePasswordUnlocker(kLockMarker));
}

bool CtlServer::disableUsernamePassword(ipc::messages::DisableUsernamePassword&, Variant&) {
  return ProcessUsernamePassword(UsernamePasswordLocker(kLockMarker));
}

}  // namespace kova::ctlserver
