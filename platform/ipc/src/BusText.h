#pragma once

#include <string_view>

namespace kova::ipc {

/// Whether `text` is valid in a D-Bus string: UTF-8 (RFC 3629) without NUL. Also rejects
/// noncharacters such as U+FFFE, which newer versions of D-Bus allow but sd-bus does not read.
bool isBusText(std::string_view text);

}  // namespace kova::ipc
