#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cerrno>

#include "SharedFolder.h"
#include "kova/utils/File.h"

namespace kova::utils {
namespace {

constexpr std::size_t kCopyChunk = std::size_t{64} * 1024;

}  // namespace

bool fileExists(const char* path, bool followLinks) {
  struct stat info {};
  const internal::Folder folder(path);
  if (!followLinks || !folder.isShared()) {
    return (followLinks ? stat(path, &info) : lstat(path, &info)) == 0;
  }
  return fstatat(folder.fd(), folder.name(), &info, AT_SYMLINK_NOFOLLOW) == 0 &&
         (S_ISDIR(info.st_mode) ||
          (S_ISREG(info.st_mode) && internal::objectionTo(info, false) == nullptr));
}

bool copyFile(const char* from, const char* to) {
  struct stat source {};
  struct stat target {};
  if (stat(from, &source) == 0 && stat(to, &target) == 0 && source.st_dev == target.st_dev &&
      source.st_ino == target.st_ino) {
    errno = EINVAL;
    return false;
  }
  File reader;
  File writer;
  if (!reader.Initialize(from, FILE_OPEN_MODE_READ, 0) ||
      !writer.Initialize(to, FILE_OPEN_MODE_TRUNCATE, 0)) {
    return false;
  }
  std::array<unsigned char, kCopyChunk> chunk;
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
