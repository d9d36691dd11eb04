#pragma once

namespace kova::ipc {

// Constants of the bus protocol; packaging/dbus/kova.Ipc1.xml describes it for other programs.

inline constexpr char kDefaultAddress[] = "unix:path=/run/kova/bus";
inline constexpr char kAddressVariable[] = "KOVA_BUS_ADDRESS";

/// Prefix of an endpoint's name on the bus.
inline constexpr char kNamePrefix[] = "kova.";
inline constexpr char kObjectPath[] = "/kova";
inline constexpr char kInterface[] = "kova.Ipc1";
inline constexpr char kSend[] = "Send";
inline constexpr char kBroadcast[] = "Broadcast";
inline constexpr char kMessageSignature[] = "a{sv}";

inline constexpr char kUnknownFunction[] = "kova.Error.UnknownFunction";
inline constexpr char kInvalidMessage[] = "kova.Error.InvalidMessage";

}  // namespace kova::ipc
