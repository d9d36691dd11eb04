#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <string>

namespace kova::utils {

enum FILE_OPEN_MODE : int {
  FILE_OPEN_MODE_READ = 0,      ///< an existing file, for reading
  FILE_OPEN_MODE_APPEND = 1,    ///< created if missing, written at its end
  FILE_OPEN_MODE_TRUNCATE = 2,  ///< created, or its content replaced, for writing
};

/// For File::Initialize: the new content stands in a temporary file beside the target until Close,
/// which flushes it to disk and renames it over the target. A reader, or a crash at any moment,
/// sees the old content or the new one. The new file has the mode and the owner of the one it
/// replaces; a symbolic link at the path is itself replaced. After a failed write Close fails too
/// and the target stays as it was.
inline constexpr unsigned FILE_REPLACE_ATOMICALLY = 1U;

/// An open file with a cursor. One owner, not copyable. Failures return false and leave the reason
/// in `errno`.
class File {
 public:
  File() = default;
  /// Closes. A file opened with FILE_REPLACE_ATOMICALLY that was never closed by Close() leaves the
  /// target as it was.
  virtual ~File();
  File(const File&) = delete;
  File& operator=(const File&) = delete;

  /// Opens `path` (close-on-exec; created files get mode 0644 less the umask). Only regular files
  /// are accepted: a folder, a pipe or a device is refused with EINVAL and never blocks; so is a
  /// path with a NUL in it. A symbolic link is not written through: that fails with ELOOP; nor is a
  /// file that another user owns or that has a second name, with EPERM, unless it is replaced. What
  /// the object had open before is closed as the destructor would.
  /// @param flags 0, or FILE_REPLACE_ATOMICALLY together with FILE_OPEN_MODE_TRUNCATE
  bool Initialize(const std::string& path, FILE_OPEN_MODE mode, unsigned flags);

  /// Writes all `length` bytes at the cursor, or fails.
  bool WriteBuffer(const unsigned char* data, std::uint64_t length);
  bool WriteString(const std::string& text);

  /// Reads exactly `length` bytes at the cursor, or fails (EIO when the file ends before).
  bool ReadBuffer(unsigned char* buffer, std::uint64_t length);

  /// Moves the cursor of a file opened for reading; false with EINVAL beyond Size().
  bool Seek(std::uint64_t cursor);

  /// Size in bytes when the file was opened, or larger after writes through this object.
  std::uint64_t Size() const { return size_; }
  /// Bytes from the start of the file to the next byte read or written.
  std::uint64_t Cursor() const { return cursor_; }
  /// Whether the cursor has reached Size().
  bool IsEOF() const { return cursor_ >= size_; }

  /// Closes, and completes an atomic replacement. False when that failed or nothing was open; the
  /// object is closed in either case.
  bool Close();

  static constexpr std::uint64_t kReadAllLimit = std::uint64_t{64} * 1024 * 1024;

  /// Reads a whole regular file, also one that reports no size as those of proc(5) do, into `out`;
  /// false, with `out` unchanged, when it cannot be read or exceeds `limit` bytes (EFBIG).
  static bool ReadStringAll(const std::string& path, std::string& out,
                            std::uint64_t limit = kReadAllLimit);

 private:
  bool OpenInPlace(const std::string& path, int flags);
  bool OpenReplacement(const std::string& path);
  bool CompleteReplacement();
  void Abandon();

  int fd_ = -1;
  std::uint64_t size_ = 0;
  std::uint64_t cursor_ = 0;
  std::string target_;     // set only while an atomic replacement is under way
  std::string temporary_;  // empty once a write to it has failed
};

/// Whether something exists at `path`; with `followLinks` a dangling symbolic link does not count.
bool fileExists(const char* path, bool followLinks);

/// Copies a regular file's content, replacing that of `to`. False, with `errno` set, on failure;
/// `to` may then be partial. A file is not copied onto itself (EINVAL).
bool copyFile(const char* from, const char* to);

}  // namespace kova::utils
