#include "FileReplacement.h"

#include <fcntl.h>
#include <sys/random.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <utility>

#include "kova/utils/Strings.h"

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
  // EINVAL: the file system does not support, or need, the flushing of folders.
  return fd && (fsync(fd.get()) == 0 || errno == EINVAL);
}

UniqueFd createTemporary(const std::string& folder, mode_t mode, std::string& path) {
  for (;;) {
    std::uint64_t random = 0;
    if (getrandom(&random, sizeof random, 0) != sizeof random) {
      return {};
    }
    std::string name = folder + format("/.kova-%016llx", static_cast<unsigned long long>(random));
    UniqueFd fd(open(name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode));
    if (fd) {
      path = std::move(name);
      return fd;
    }
    if (errno != EEXIST) {
      return fd;
    }
  }
}

// The owner first, since changing it may clear mode bits.
bool takeOverAttributes(int fd, const struct stat& from) {
  return fchown(fd, from.st_uid, from.st_gid) == 0 && fchmod(fd, from.st_mode & kPermissions) == 0;
}

}  // namespace kova::utils::internal
