#pragma once

#include <kova_sd_bus.h>

#include <cstddef>
#include <string>

#include "kova/variant/Variant.h"

/// Converts between Variant and D-Bus. See "Type System" and "Message Protocol" in the D-Bus
/// specification for the marshalling, and docs/bus.md for the mapping of types.
namespace kova::ipc::wire {

/// Maximum marshalled size of a body, in bytes, in either direction.
inline constexpr std::size_t kMaxBodySize = std::size_t{1024} * 1024;
/// Maximum nesting of maps and arrays, including the body's own map.
inline constexpr unsigned kMaxDepth = variant::Variant::kMaxDepth;
/// Maximum nesting of D-Bus containers (array, dictionary entry, structure, variant); the bus
/// disconnects a sender that exceeds it.
inline constexpr unsigned kMaxBusDepth = 64;

/// Reads the body of a received message, which must be a single dictionary with string keys. Like
/// the functions below, starts at the current read position, which is the beginning in a callback.
/// @param body   receives the map; the last of several equal keys counts
/// @param reason receives why the body is invalid
/// @return false if the body has another signature, contains a type without a Variant counterpart,
/// or exceeds a limit
bool decode(sd_bus_message* message, variant::Variant& body, std::string& reason);

/// Reads the answer to a call of an interface other than kova.Ipc1, such as
/// org.freedesktop.DBus.ObjectManager: at most one value of any type, whose dictionaries may also
/// have object paths as keys and whose structures become arrays.
/// @param value receives the value, or an empty Variant when there is none
/// @return as decode()
bool decodeAnswer(sd_bus_message* message, variant::Variant& value, std::string& reason);

/// Reads all arguments of a received message, in the same way.
/// @param arguments receives an array of the values; unchanged on failure
void decodeArguments(sd_bus_message* message, variant::Variant& arguments);

/// Appends a map as the message's only argument, an a{sv}. A value that is not a map is sent as an
/// empty one.
/// @param reason receives why the map cannot be sent
/// @return false if a key is not a valid D-Bus string, a limit is exceeded or memory is exhausted;
/// the message is then unusable
bool encode(const variant::Variant& body, sd_bus_message* message, std::string& reason);

/// Whether `encode` would succeed for the map.
/// @param size receives the marshalled size in bytes
bool measure(const variant::Variant& body, std::size_t& size, std::string& reason);

}  // namespace kova::ipc::wire
