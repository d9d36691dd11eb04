#pragma once

#include <string_view>

namespace kova::ipc {

/// Whether a D-Bus string may hold `text`: UTF-8 (RFC 3629) without NUL. Noncharacters such as
/// U+FFFE are refused although newer D-Bus allows them, because sd-bus refuses to read them.
bool isBusText(std::string_view text);

}  // namespace kova::ipc
