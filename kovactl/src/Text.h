#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "kova/variant/Variant.h"

/// Formats text for people. Everything received from the bus passes through printable() or json()
/// before it is printed.
namespace kova::ctl {

/// Length of the well-formed UTF-8 sequence (RFC 3629) that starts at `at`, or 0 when there is
/// none.
std::size_t utf8Length(std::string_view text, std::size_t at);

/// Makes text safe for a terminal: control characters, characters that reorder text, and bytes that
/// are not UTF-8 become escapes such as "\n", "\x1b" and "\u202e".
std::string printable(std::string_view text);

/// JSON with all control characters escaped, including those that JSON allows unescaped.
/// @param indent spaces per level, or -1 for one line
std::string json(const variant::Variant& value, int indent = -1);

/// A value as a table cell: text unquoted, other values as JSON, "-" for an empty value.
std::string cell(const variant::Variant& value);

/// "1.5 GiB": binary units, three digits.
std::string humanBytes(double bytes);
/// "3 d 04:05:06"; without days below one day.
std::string humanDuration(std::uint64_t seconds);

/// The first `columns` characters of `text`.
std::string_view clip(std::string_view text, std::size_t columns);

/// The accepted forms of a duration, for error messages.
inline constexpr std::string_view kDurationForms =
    "write 5 or 5s for seconds, 500ms, 2min or 1h, at most 596h";

/// Parses a duration: a number, which may have a fraction, and a unit, "ms", "s", "min" or "h";
/// without a unit, seconds.
/// @return false for any other text and above 2147483 s: the camera treats a delay that overflows
///         an int of milliseconds as none
bool parseDuration(std::string_view text, std::uint32_t& milliseconds);
/// "0.5 s".
std::string humanSeconds(std::uint32_t milliseconds);

/// A row of a table. Both texts are already printable.
struct Row {
  std::string label;
  std::string value;

  bool operator==(const Row&) const = default;
};

/// The rows, one per line, with their values aligned.
std::string table(const std::vector<Row>& rows);

/// The printable cells of a line; trailing ones may be missing.
using Cells = std::vector<std::string>;
/// The lines, with their columns aligned. The last cell of a line may be of any length.
std::string grid(const std::vector<Cells>& lines);

/// All values inside a container as rows labelled with their path, for example "cpu.arr[0]"; none
/// for an empty container. Any other value becomes one row without a label.
std::vector<Row> flatten(const variant::Variant& value);

/// Breaks lines longer than `columns` between words. Continuation lines are indented like the text
/// of the line or, in a line with columns separated by two or more spaces, like its second column.
/// Words are never broken.
std::string wrap(std::string_view text, std::size_t columns);

}  // namespace kova::ctl
