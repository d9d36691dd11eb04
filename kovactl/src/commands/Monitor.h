#pragma once

#include <string>

#include "kova/ipc/BusMonitor.h"
#include "kova/variant/Variant.h"

namespace kova::ctl {

/// A message as one printable line: time, sender -> destination, function and fields. Passwords are
/// masked; fields of the envelope are omitted when they have their default.
std::string messageLine(const ipc::SeenMessage& seen, timeval when);

/// A message as the result of a command: "time", "kind", "sender", "destination", "error" for
/// errors, and "message" with passwords masked.
variant::Variant messageRecord(const ipc::SeenMessage& seen, timeval when);

}  // namespace kova::ctl
