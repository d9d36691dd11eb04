#pragma once

namespace kova::ctlserver {

/// The camera's name in the configuration store.
inline constexpr char kNameKey[] = "resolv.host.1.name";

}  // namespace kova::ctlserver
