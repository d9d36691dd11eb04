#include "SharedFolder.h"

#include <fcntl.h>
#include <pwd.h>
#include <syslog.h>
#include <unistd.h>

#include <array>
#include <optional>

#include "FileReplacement.h"
#include "kova/logger/Logger.h"
#include "kova/utils/File.h"
#include "kova/utils/Parsing.h"

namespace kova::utils {
namespace {

constexpr char kLogIdentity[] = "kova_utils";
constexpr char kLogUnit[] = "File";

std::optional<uid_t>& trustedOwner() {
  static std::optional<uid_t> owner;
  return owner;
}

std::optional<uid_t> findUser(const std::string& user) {
  uid_t number = 0;
  if (parseNumber(user, number)) return number;
  std::array<char, 4096> buffer;
  passwd entry{};
  passwd* found = nullptr;
  getpwnam_r(user.c_str(), &entry, buffer.data(), buffer.size(), &found);
  return found == nullptr ? std::nullopt : std::optional(entry.pw_uid);
}

std::string fileName(const std::string& path) {
  const bool isFolder = path.empty() || path.back() == '/';
  return isFolder ? std::string(1, '.') : path.substr(path.rfind('/') + 1);
}

}  // namespace

bool trustFilesOf(const std::string& user) {
  trustedOwner() = findUser(user);
  if (!trustedOwner()) {
    KOVA_LOG(LOG_WARNING, 0, "No user %s, whose files could be trusted", user.c_str());
  }
  return trustedOwner().has_value();
}

namespace internal {

Folder::Folder(const std::string& path)
    : name_(fileName(path)), fd_(open(folderOf(path).c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC)) {
  struct stat info {};
  shared_ = fd_ && fstat(fd_.get(), &info) == 0 && (info.st_mode & (S_IWGRP | S_IWOTH)) != 0;
}

const char* objectionTo(const struct stat& file, bool writes) {  // kept: 114
  const bool trusted = file.st_uid == 0 || trustedOwner() == file.st_uid;
  if (file.st_uid != geteuid() && (writes || !trusted)) {
    return "it belongs to somebody else";
  }
  return file.st_nlink == 1 ? nullptr : "it has a second name";
}

}  // namespace internal
}  // namespace kova::utils
