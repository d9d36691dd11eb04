#include "kova/utils/File.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>

#include "FileReplacement.h"

namespace kova::utils {
namespace {

constexpr std::size_t kChunk = std::size_t{64} * 1024;
constexpr mode_t kNewFileMode = 0644;

bool failWith(int error) {
  errno = error;
  return false;
}

// close(2) for a path on which an earlier failure is what the caller has to see.
void closeQuietly(int fd) {
  const int saved = errno;
  close(fd);
  errno = saved;
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

// What is written through a symbolic link in /tmp could be any file of the system.
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
  Abandon();
}

void File::Abandon() {
  if (fd_ >= 0) {
    closeQuietly(fd_);
  }
  if (!temporary_.empty()) {
    const int saved = errno;
    unlink(temporary_.c_str());
    errno = saved;
  }
  fd_ = -1;
  size_ = 0;
  cursor_ = 0;
  target_.clear();
  temporary_.clear();
}

bool File::Initialize(const std::string& path, FILE_OPEN_MODE mode, unsigned flags) {
  Abandon();
  const int access = openFlags(mode);
  const bool atomic = flags == FILE_REPLACE_ATOMICALLY;
  if (access < 0 || path.empty() || path.find('\0') != std::string::npos ||
      (flags != 0 && !(atomic && mode == FILE_OPEN_MODE_TRUNCATE))) {
    return failWith(path.empty() ? ENOENT : EINVAL);
  }
  const bool opened = atomic ? OpenReplacement(path) : OpenInPlace(path, access);
  if (!opened) {
    Abandon();
  }
  return opened;
}

bool File::OpenInPlace(const std::string& path, int flags) {
  // Not blocking: the open of a pipe would wait for its other end.
  fd_ = open(path.c_str(), flags | O_CLOEXEC | O_NOCTTY | O_NONBLOCK, kNewFileMode);
  if (fd_ < 0) {
    // What open(2) reports for folders, and for pipes, sockets and devices without a peer.
    return (errno == EISDIR || errno == ENXIO) ? failWith(EINVAL) : false;
  }
  struct stat info {};
  if (fstat(fd_, &info) != 0) {
    return false;
  }
  if (!S_ISREG(info.st_mode)) {
    return failWith(EINVAL);
  }
  // In a folder that all may write: somebody else's file is theirs to change at any time, and a
  // second name may be that of a file of the system.
  const bool writes = (flags & O_ACCMODE) != O_RDONLY;
  if (writes && (info.st_uid != geteuid() || info.st_nlink != 1)) {
    return failWith(EPERM);
  }
  if (flags == openFlags(FILE_OPEN_MODE_TRUNCATE)) {
    return ftruncate(fd_, 0) == 0;
  }
  size_ = static_cast<std::uint64_t>(info.st_size);
  cursor_ = (flags & O_APPEND) != 0 ? size_ : 0;
  return true;
}

bool File::OpenReplacement(const std::string& path) {
  struct stat old {};
  const bool replaces = stat(path.c_str(), &old) == 0;
  if (!replaces && errno != ENOENT) {
    return false;
  }
  if (replaces && !S_ISREG(old.st_mode)) {
    return failWith(EINVAL);
  }
  // Until it has the old file's mode nobody else may read what is to replace a secret.
  std::string name;
  fd_ = internal::createTemporary(internal::folderOf(path), replaces ? 0600 : kNewFileMode, name);
  if (fd_ < 0) {
    return false;
  }
  target_ = path;
  temporary_ = name;
  return !replaces || internal::takeOverAttributes(fd_, old);
}

bool File::WriteBuffer(const unsigned char* data, std::uint64_t length) {
  if (fd_ < 0) {
    return failWith(EBADF);
  }
  while (length > 0) {
    const ssize_t put = writeSome(fd_, data, length);
    if (put <= 0) {
      const int error = put == 0 ? EIO : errno;
      if (!temporary_.empty()) {
        unlink(temporary_.c_str());
        temporary_.clear();
      }
      return failWith(error);
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
  if (fd_ < 0) {
    return failWith(EBADF);
  }
  while (length > 0) {
    const ssize_t got = readSome(fd_, buffer, length);
    if (got <= 0) {
      return got == 0 ? failWith(EIO) : false;
    }
    buffer += got;
    length -= static_cast<std::uint64_t>(got);
    cursor_ += static_cast<std::uint64_t>(got);
  }
  return true;
}

bool File::Seek(std::uint64_t cursor) {
  if (cursor > size_) {
    return failWith(EINVAL);
  }
  if (lseek(fd_, static_cast<off_t>(cursor), SEEK_SET) < 0) {
    return false;
  }
  cursor_ = cursor;
  return true;
}

bool File::Close() {
  if (fd_ < 0) {
    return failWith(EBADF);
  }
  bool closed;
  if (target_.empty()) {
    closed = close(fd_) == 0;
    fd_ = -1;
  } else {
    closed = CompleteReplacement();
  }
  Abandon();
  return closed;
}

bool File::CompleteReplacement() {
  if (temporary_.empty()) {
    return failWith(EIO);
  }
  if (fsync(fd_) != 0) {
    return false;
  }
  const int fd = fd_;
  fd_ = -1;
  if (close(fd) != 0 || rename(temporary_.c_str(), target_.c_str()) != 0) {
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
    const ssize_t got = readSome(file.fd_, chunk.data(), chunk.size());
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

bool fileExists(const char* path, bool followLinks) {
  struct stat info {};
  return (followLinks ? stat(path, &info) : lstat(path, &info)) == 0;
}

bool copyFile(const char* from, const char* to) {
  struct stat source {};
  struct stat target {};
  if (stat(from, &source) == 0 && stat(to, &target) == 0 && source.st_dev == target.st_dev &&
      source.st_ino == target.st_ino) {
    return failWith(EINVAL);
  }
  File reader;
  File writer;
  if (!reader.Initialize(from, FILE_OPEN_MODE_READ, 0) ||
      !writer.Initialize(to, FILE_OPEN_MODE_TRUNCATE, 0)) {
    return false;
  }
  std::array<unsigned char, kChunk> chunk;
  while (!reader.IsEOF()) {
    const std::uint64_t length =
        std::min<std::uint64_t>(reader.Size() - reader.Cursor(), chunk.size());
    if (!reader.ReadBuffer(chunk.data(), length) || !writer.WriteBuffer(chunk.data(), length)) {
      return false;
    }
  }
  return writer.Close();
}

}  // namespace kova::utils
