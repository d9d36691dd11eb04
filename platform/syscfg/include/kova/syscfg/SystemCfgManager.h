#pragma once

#include <string>
#include <vector>

namespace kova::syscfg {

/// One line of the store.
struct ConfigLine {
  std::string key;    ///< empty if the line is not a setting
  std::string value;  ///< the whole line if it is not a setting
};

/// The camera's configuration store: /etc/system.cfg, lines of the form "key=value". Lines of any
/// other form ("#" comments, blank lines, a leading "=") and the order of all lines are kept.
/// Changes stay in memory until close().
///
/// Keys are compared exactly. A value is everything after the first "=", including a carriage
/// return at the end of the line. If a key occurs more than once, its last line is read and
/// changed.
///
/// Operations that fail return false and leave the file unchanged. All operations but init() fail
/// before init() and after close().
class SystemCfgManager {
 public:
  /// Reads the store. False if the file is missing, cannot be read or exceeds 1 MiB.
  bool init();

  /// Reads a value.
  /// @param absent receives whether the key is absent, in which case `value` is "" and the call
  /// succeeds; if null, an absent key is a failure
  bool get(const std::string& key, std::string* value, bool* absent) const;

  /// Changes a value, or appends it. Fails for a key that is empty, contains "=", begins with "#"
  /// or begins or ends with white space; for a line break or NUL in key or value; and if the store
  /// would exceed 1 MiB.
  /// @param changed receives whether the stored value has changed; may be null
  bool set(const std::string& key, const std::string& value, bool* changed);
  bool set(const std::string& key, int value, bool* changed);

  /// Closes the store. With `changed` or `force` the file is replaced atomically: a temporary file
  /// beside it is written, flushed to disk and renamed, so that a crash leaves the old store or the
  /// new one.
  bool close(bool changed, bool force);

 private:
  std::vector<ConfigLine> lines_;
  bool open_ = false;
};

}  // namespace kova::syscfg
