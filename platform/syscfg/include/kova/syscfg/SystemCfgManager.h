#pragma once

#include <string>
#include <vector>

namespace kova::syscfg {

/// One line of the store.
struct ConfigLine {
  std::string key;    ///< empty for a line that is no setting
  std::string value;  ///< the whole line then
};

/// The camera's configuration store: /etc/system.cfg, lines of the form "key=value". Lines that are
/// not of this form ("#" comments, blank lines, "=" in front) and the order of all lines are kept.
/// Changes stand in memory until close().
///
/// Keys are compared exactly. A value is all that follows the first "=", a carriage return at the
/// end of the line included. Where a key stands twice the last line counts, for reading and for
/// changing.
///
/// Every operation returns false on failure and leaves the file as it was. Before init() and after
/// close() there is no store, and every other operation fails.
class SystemCfgManager {
 public:
  /// Reads the store. False when the file is missing, cannot be read or exceeds 1 MiB.
  bool init();

  /// Reads a value.
  /// @param absent receives whether the key is absent, which then is no failure (`value` becomes
  ///               ""); when null, an absent key is a failure
  bool get(const std::string& key, std::string* value, bool* absent) const;

  /// Changes a value, or adds it at the end. Refused: an empty key, a key with "=" in it, "#" in
  /// front or white space at its ends, a line break or NUL in either, and what would make the store
  /// exceed 1 MiB.
  /// @param changed receives whether the stored value is now another; may be null
  bool set(const std::string& key, const std::string& value, bool* changed);
  bool set(const std::string& key, int value, bool* changed);

  /// Ends the use of the store. With `changed` (or `force`) the file is replaced: a temporary file
  /// beside it is written, flushed to disk and renamed, so that a crash leaves the old store or the
  /// new one.
  bool close(bool changed, bool force);

 private:
  std::vector<ConfigLine> lines_;
  bool open_ = false;
};

}  // namespace kova::syscfg
