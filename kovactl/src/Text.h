#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "kova/variant/Variant.h"

/// Text for people and terminals. Nothing that comes from the bus is printed without passing
/// through printable() or json().
namespace kova::ctl {

/// Length of the well-formed UTF-8 sequence (RFC 3629) that starts at `at`, or 0 when there is
/// none.
std::size_t utf8Length(std::string_view text, std::size_t at);

/// One line that cannot steer a terminal: control characters, those that reorder text and bytes
/// that are not UTF-8 become escapes such as "\n", "\x1b" and "\u202e".
std::string printable(std::string_view text);

/// JSON with the control characters that it would allow unescaped written as escapes.
/// @param indent spaces a level, or -1 for one line
std::string json(const variant::Variant& value, int indent = -1);

/// A value in a table: text as it is, anything else as JSON; an empty value as "-".
std::string cell(const variant::Variant& value);

/// "1.5 GiB": with binary units, three figures.
std::string humanBytes(double bytes);
/// "3 d 04:05:06", without the days when there are none.
std::string humanDuration(std::uint64_t seconds);

/// The first `columns` characters of `text`, all of it when it has no more.
std::string_view clip(std::string_view text, std::size_t columns);

/// Reads a positive number of seconds with an optional fraction into milliseconds.
/// @return false when it is no such number or exceeds 4294967 s, the most that a message can carry
bool parseSeconds(const std::string& text, std::uint32_t& milliseconds);

}  // namespace kova::ctl
