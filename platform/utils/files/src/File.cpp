#include "kova/utils/File.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <utility>

#include "Errno.h"
#include "FileReplacement.h"
#include "SharedFolder.h"
#include "kova/logger/Logger.h"

namespace kova::utils {
namespace {

constexpr char kLogIdentity[] = "kova_utils";
constexpr char kLogUnit[] = "File";
constexpr std::size_t kChunk = 65536;
constexpr mode_t kNewFileMode = 0644;

bool refuse(const std::string& path, const char* why, int error) {
  KOVA_LOG_IN("Initialize", LOG_WARNING, 0, "Refused to open %s: %s", path.c_str(), why);
  return failWith(error);
}

/// Logs the refusal only in a shared folder; elsewhere the caller reports it.
bool refuseKind(const std::string& path, bool guarded) {
  return guarded ? refuse(path, "it is no regular file", EINVAL) : failWith(EINVAL);
}

/// Logs why open(2) refused a file; the caller reports a file that is missing or not permitted.
bool explainOpen(const std::string& path, bool guarded) {
  switch (errno) {
    case ELOOP:
      return guarded && refuse(path, "it is a symbolic link", ELOOP);
    case EISDIR:
    case ENXIO:  // a pipe without a reader, a socket, or a device without a driver
      return refuseKind(path, guarded);
    default:
      return false;
  }
}

ssize_t readSome(int fd, unsigned char* buffer, std::size_t length) {
  ssize_t got;
  do {
    got = read(fd, buffer, length);
  } while (got < 0 && errno == EINTR);
  return got;
}

ssize_t writeSome(int fd, const unsigned char* data, std::size_t length) {
  ssize_t put;
  do {
    put = write(fd, data, length);
  } while (put < 0 && errno == EINTR);
  return put;
}

// O_NOFOLLOW: writing through a symbolic link in /tmp could overwrite any file of the system.
int openFlags(FILE_OPEN_MODE mode) {
  switch (mode) {
    case FILE_OPEN_MODE_READ:
      return O_RDONLY;
    case FILE_OPEN_MODE_APPEND:
      return O_WRONLY | O_CREAT | O_NOFOLLOW | O_APPEND;
    case FILE_OPEN_MODE_TRUNCATE:
      return O_WRONLY | O_CREAT | O_NOFOLLOW;
  }
  return -1;
}

}  // namespace

File::~File() {
  abandon();
}

void File::abandon() {
  const ErrnoGuard reason;
  fd_.reset();
  removeTemporary();
  size_ = 0;
  cursor_ = 0;
  target_.clear();
}

void File::removeTemporary() {
  if (!temporary_.empty()) {
    unlink(std::exchange(temporary_, {}).c_str());
  }
}

bool File::Initialize(const std::string& path, FILE_OPEN_MODE mode, unsigned flags) {
  abandon();
  const int access = openFlags(mode);
  const bool atomic = flags == FILE_REPLACE_ATOMICALLY;
  if (access < 0 || path.empty() || path.find('\0') != std::string::npos ||
      (flags != 0 && !(atomic && mode == FILE_OPEN_MODE_TRUNCATE))) {
    return failWith(path.empty() ? ENOENT : EINVAL);
  }
  const bool opened = atomic ? openReplacement(path) : openInPlace(path, access);
  if (!opened) {
    abandon();
  }
  return opened;
}

bool File::openInPlace(const std::string& path, int flags) {
  const bool writes = (flags & O_ACCMODE) != O_RDONLY;
  const internal::Folder folder(path);
  if (!folder.isOpen()) {
    return false;
  }
  const bool guarded = writes || folder.isShared();
  // Opening a pipe would otherwise block until its other end is opened.
  fd_ = UniqueFd(openat(folder.fd(), folder.name(),
                        flags | O_CLOEXEC | O_NOCTTY | O_NONBLOCK | (guarded ? O_NOFOLLOW : 0),
                        kNewFileMode));
  if (!fd_) {
    return explainOpen(path, guarded);
  }
  struct stat info {};
  if (fstat(fd_.get(), &info) != 0 || !S_ISREG(info.st_mode)) {
    return refuseKind(path, guarded);
  }
  const char* objection = guarded ? internal::objectionTo(info, writes) : nullptr;
  if (objection != nullptr) {
    return refuse(path, objection, EPERM);
  }
  if (flags == openFlags(FILE_OPEN_MODE_TRUNCATE)) {
    return ftruncate(fd_.get(), 0) == 0;
  }
  size_ = static_cast<std::uint64_t>(info.st_size);
  cursor_ = (flags & O_APPEND) != 0 ? size_ : 0;
  return true;
}

bool File::openReplacement(const std::string& path) {
  struct stat old {};
  const bool replaces = stat(path.c_str(), &old) == 0;
  if (!replaces && errno != ENOENT) {
    return false;
  }
  if (replaces && !S_ISREG(old.st_mode)) {
    return failWith(EINVAL);
  }
  // Mode 0600 until the old file's mode is set, since the content may be secret.
  fd_ = internal::createTemporary(internal::folderOf(path), replaces ? 0600 : kNewFileMode,
                                  temporary_);
  if (!fd_) {
    return false;
  }
  target_ = path;
  return !replaces || internal::takeOverAttributes(fd_.get(), old);
}

bool File::WriteBuffer(const unsigned char* data, std::uint64_t length) {
  if (!fd_) {
    return failWith(EBADF);
  }
  while (length > 0) {
    const ssize_t put = writeSome(fd_.get(), data, length);
    if (put <= 0) {
      const ErrnoGuard reason;
      removeTemporary();
      return false;
    }
    data += put;
    length -= static_cast<std::uint64_t>(put);
    cursor_ += static_cast<std::uint64_t>(put);
    size_ = std::max(size_, cursor_);
  }
  return true;
}

bool File::WriteString(const std::string& text) {
  return WriteBuffer(reinterpret_cast<const unsigned char*>(text.data()), text.size());
}

bool File::ReadBuffer(unsigned char* buffer, std::uint64_t length) {
  if (!fd_) {
    return failWith(EBADF);
  }
  while (length > 0) {
    const ssize_t got = readSome(fd_.get(), buffer, length);
    if (got <= 0) {
      return got == 0 ? failWith(EIO) : false;
    }
    buffer += got;
    length -= static_cast<std::uint64_t>(got);
    cursor_ += static_cast<std::uint64_t>(got);
  }
  return true;
}

bool File::seek(std::uint64_t cursor) {
  if (cursor > size_) {
    return failWith(EINVAL);
  }
  if (lseek(fd_.get(), static_cast<off_t>(cursor), SEEK_SET) < 0) {
    return false;
  }
  cursor_ = cursor;
  return true;
}

bool File::Close() {
  if (!fd_) {
    return failWith(EBADF);
  }
  const bool closed = target_.empty() ? close(fd_.release()) == 0 : completeReplacement();
  abandon();
  return closed;
}

// The content must be on disk before the rename: otherwise a crash could leave an empty target.
bool File::completeReplacement() {
  if (temporary_.empty()) {
    return failWith(EIO);
  }
  if (fsync(fd_.get()) != 0) {
    return false;
  }
  if (close(fd_.release()) != 0 || rename(temporary_.c_str(), target_.c_str()) != 0) {
    return false;
  }
  temporary_.clear();
  return internal::syncFolder(internal::folderOf(target_));
}

bool File::ReadStringAll(const std::string& path, std::string& out, std::uint64_t limit) {
  File file;
  if (!file.Initialize(path, FILE_OPEN_MODE_READ, 0)) {
    return false;
  }
  if (file.Size() > limit) {
    return failWith(EFBIG);
  }
  std::string text;
  std::array<unsigned char, kChunk> chunk;
  for (;;) {
    const ssize_t got = readSome(file.fd_.get(), chunk.data(), chunk.size());
    if (got < 0) {
      return false;
    }
    if (got == 0) {
      out = std::move(text);
      return true;
    }
    if (text.size() + static_cast<std::size_t>(got) > limit) {
      return failWith(EFBIG);
    }
    text.append(reinterpret_cast<const char*>(chunk.data()), static_cast<std::size_t>(got));
  }
}

}  // namespace kova::utils
