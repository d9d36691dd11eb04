#pragma once

#include <string>

#include "kova/ipc/BusMonitor.h"
#include "kova/variant/Variant.h"

namespace kova::ctl {

/// What passed on the bus, as one printable line: time, sender -> destination, function and fields.
/// Passwords are masked, and of the envelope only what is not the default is shown.
std::string messageLine(const ipc::SeenMessage& seen, timeval when);

/// The same as one line of JSON: "time", "kind", "sender", "destination", "error" of an error, and
/// the whole message, passwords masked.
std::string messageJson(const ipc::SeenMessage& seen, timeval when);

}  // namespace kova::ctl
