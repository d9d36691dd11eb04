#pragma once

#include <cstdio>
#include <string>
#include <string_view>

namespace kova::ctl {

/// Passes text of another machine on to a stream, line by line as printable() makes it.
class LineFilter {
 public:
  /// @param to where the text goes; not owned
  explicit LineFilter(std::FILE* to) : to_(to) {}

  /// Takes text, which may end within a line. A very long line is passed on in pieces.
  void take(std::string_view text);
  /// Passes on a last line without a line break.
  void end();
  /// Whether all could be written.
  bool good() const { return good_; }

 private:
  void pass(std::string_view line, bool whole);

  std::FILE* to_;
  std::string rest_;
  bool good_ = true;
};

}  // namespace kova::ctl
