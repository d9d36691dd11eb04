#pragma once

#include <string_view>

namespace kova::ipc {

/// Whether the character is valid in a D-Bus string: neither NUL nor a noncharacter such as U+FFFE,
/// which newer versions of D-Bus allow but sd-bus neither reads nor writes.
bool isBusCharacter(char32_t code);

/// Whether `text` is valid in a D-Bus string: UTF-8 (RFC 3629) of such characters.
bool isBusText(std::string_view text);

}  // namespace kova::ipc
