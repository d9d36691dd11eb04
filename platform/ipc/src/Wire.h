#pragma once

#include <systemd/sd-bus.h>

#include <cstddef>
#include <string>

#include "kova/variant/Variant.h"

/// Variant to D-Bus and back. Marshalling is that of the D-Bus specification, "Type System" and
/// "Message Protocol"; which type stands for which is in docs/bus.md.
namespace kova::ipc::wire {

/// Marshalled size of the largest body that is sent or taken, in bytes.
inline constexpr std::size_t kMaxBodySize = std::size_t{1024} * 1024;
/// Maps and arrays within one another, the body's own map counted.
inline constexpr unsigned kMaxDepth = variant::Variant::kMaxDepth;
/// D-Bus containers (array, dictionary entry, structure, variant) within one another; the bus
/// disconnects who sends more.
inline constexpr unsigned kMaxBusDepth = 64;

/// Reads the body of a received message, which must be one dictionary with string keys.
/// @param body   receives the map; of equal keys the last counts
/// @param reason receives what is wrong with the body
/// @return false when the body is something else, holds a type that no Variant stands for, or
/// exceeds a limit
bool decode(sd_bus_message* message, variant::Variant& body, std::string& reason);

/// Appends a map as the message's only argument, an a{sv}. What is no map is sent as an empty one.
/// @param reason receives what cannot be sent
/// @return false when a key is no D-Bus string, a limit is exceeded or memory is exhausted; the
/// message is of no use then
bool encode(const variant::Variant& body, sd_bus_message* message, std::string& reason);

/// Whether `encode` would take the map.
/// @param size receives the marshalled size in bytes
bool measure(const variant::Variant& body, std::size_t& size, std::string& reason);

}  // namespace kova::ipc::wire
