#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <string>

#include "kova/utils/UniqueFd.h"

namespace kova::utils {

enum FILE_OPEN_MODE : int {
  FILE_OPEN_MODE_READ = 0,      ///< an existing file, for reading
  FILE_OPEN_MODE_APPEND = 1,    ///< created if missing, written at its end
  FILE_OPEN_MODE_TRUNCATE = 2,  ///< created, or its content replaced, for writing
};

/// For File::Initialize: the new content goes to a temporary file beside the target until Close(),
/// which flushes it to disk and renames it over the target. Readers, and a crash at any moment, see
/// either the old content or the new one. The new file has the mode and the owner of the one it
/// replaces; a symbolic link at the path is itself replaced. After a failed write Close() fails too
/// and leaves the target unchanged.
inline constexpr unsigned FILE_REPLACE_ATOMICALLY = 1U;

/// An open file with a cursor. Not copyable. Operations that fail return false and set `errno`.
class File {
 public:
  File() = default;
  /// Closes the file. Without a call of Close(), FILE_REPLACE_ATOMICALLY leaves the target
  /// unchanged.
  virtual ~File();
  File(const File&) = delete;
  File& operator=(const File&) = delete;

  /// Opens `path` (close-on-exec; created files get mode 0644 less the umask). Only regular files
  /// are accepted: a folder, a pipe, a device or a path that contains NUL fails with EINVAL,
  /// without blocking. Opening for writing fails with ELOOP for a symbolic link, and with EPERM for
  /// a file that another user owns or that has a second hard link, unless the file is replaced.
  ///
  /// In a group- or world-writable folder such as /tmp the same checks apply to reading, so that no
  /// user can substitute a file that the system put there. Files owned by root or by the user named
  /// in trustFilesOf() can still be read.
  ///
  /// Refusals are logged when opening for writing or in such a folder. A file that was already open
  /// is closed first, as by the destructor.
  /// @param flags 0, or FILE_REPLACE_ATOMICALLY together with FILE_OPEN_MODE_TRUNCATE
  bool Initialize(const std::string& path, FILE_OPEN_MODE mode, unsigned flags);

  /// Writes exactly `length` bytes at the cursor, or fails.
  bool WriteBuffer(const unsigned char* data, std::uint64_t length);
  bool WriteString(const std::string& text);

  /// Reads exactly `length` bytes at the cursor, or fails (with EIO at the end of the file).
  bool ReadBuffer(unsigned char* buffer, std::uint64_t length);

  /// Moves the cursor of a file opened for reading; fails with EINVAL beyond Size().
  bool seek(std::uint64_t cursor);

  /// Size in bytes when the file was opened, grown by writes through this object.
  std::uint64_t Size() const { return size_; }
  /// Offset of the next byte to read or write.
  std::uint64_t Cursor() const { return cursor_; }
  /// Whether the cursor has reached Size().
  bool IsEOF() const { return cursor_ >= size_; }

  /// Closes the file and completes an atomic replacement. False if that failed or no file was open;
  /// the object is closed in either case.
  bool Close();

  static constexpr std::uint64_t kReadAllLimit = std::uint64_t{64} * 1024 * 1024;

  /// Reads a whole regular file into `out`, including files of proc(5), which report no size.
  /// False, with `out` unchanged, if the file cannot be read or exceeds `limit` bytes (EFBIG).
  static bool ReadStringAll(const std::string& path, std::string& out,
                            std::uint64_t limit = kReadAllLimit);

 private:
  bool openInPlace(const std::string& path, int flags);
  bool openReplacement(const std::string& path);
  bool completeReplacement();
  void abandon();
  void removeTemporary();

  UniqueFd fd_;
  std::uint64_t size_ = 0;
  std::uint64_t cursor_ = 0;
  std::string target_;     // set only during an atomic replacement
  std::string temporary_;  // empty after a failed write
};

/// Trusts the files of one more user in folders that others may write to, besides root and the user
/// of this process. `user` is a number or the name of an existing account. A second call replaces
/// the first.
/// @return false, and logged, for an unknown user; no other user is trusted then
bool trustFilesOf(const std::string& user);

/// Whether `path` exists. With `followLinks`, false for a dangling symbolic link and for a file in
/// a group- or world-writable folder that File would refuse to read.
bool fileExists(const char* path, bool followLinks);

/// Copies the content of a regular file, replacing that of `to`. On failure returns false and sets
/// `errno`; `to` may then be incomplete. Fails with EINVAL if both are the same file.
bool copyFile(const char* from, const char* to);

}  // namespace kova::utils
