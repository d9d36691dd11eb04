#include "FileReplacement.h"

#include <fcntl.h>
#include <sys/random.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>

#include "kova/utils/Strings.h"
#include "kova/utils/UniqueFd.h"

namespace kova::utils::internal {
namespace {

constexpr mode_t kPermissions = 07777;

}  // namespace

std::string folderOf(const std::string& path) {
  const std::size_t slash = path.rfind('/');
  if (slash == std::string::npos) {
    return ".";
  }
  return slash == 0 ? "/" : path.substr(0, slash);
}

bool syncFolder(const std::string& folder) {
  const UniqueFd fd(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  // EINVAL: the file system does not support flushing folders and needs none.
  return fd && (fsync(fd.get()) == 0 || errno == EINVAL);
}

int createTemporary(const std::string& folder, mode_t mode, std::string& path) {
  for (;;) {
    std::uint64_t random = 0;
    if (getrandom(&random, sizeof random, 0) != sizeof random) {
      return -1;
    }
    path = folder + format("/.kova-%016llx", static_cast<unsigned long long>(random));
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode);
    if (fd >= 0 || errno != EEXIST) {
      return fd;
    }
  }
}

// The owner first, since changing it may clear mode bits.
bool takeOverAttributes(int fd, const struct stat& from) {
  struct stat own {};
  if (fstat(fd, &own) != 0) {
    return false;
  }
  if ((own.st_uid != from.st_uid || own.st_gid != from.st_gid) &&
      fchown(fd, from.st_uid, from.st_gid) != 0) {
    return false;
  }
  return fchmod(fd, from.st_mode & kPermissions) == 0;
}

}  // namespace kova::utils::internal
