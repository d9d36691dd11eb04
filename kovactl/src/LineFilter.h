#pragma once

#include <cstdio>
#include <string>
#include <string_view>

namespace kova::ctl {

/// Copies text from another machine to a stream, line by line, escaped by printable().
class LineFilter {
 public:
  /// @param to receives the text; not owned
  explicit LineFilter(std::FILE* to) : to_(to) {}

  /// Takes text, which may end in the middle of a line. Very long lines are written in pieces.
  void take(std::string_view text);
  /// Writes a last line that has no line break.
  void end();
  /// Whether all writes succeeded.
  bool good() const { return good_; }

 private:
  void pass(std::string_view line, bool whole);

  std::FILE* to_;
  std::string rest_;
  bool good_ = true;
};

}  // namespace kova::ctl
