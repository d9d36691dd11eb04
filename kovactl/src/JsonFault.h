#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace kova::ctl {

/// Where and why a text is no JSON.
struct JsonFault {
  std::size_t offset;  ///< of the first byte that does not fit, from 0
  std::string reason;
};

/// Finds the first fault of a text by the grammar of RFC 8259; none when it is JSON. Nesting deeper
/// than Variant::kMaxDepth is a fault too. Meant to explain what Variant::FromJSON has refused.
std::optional<JsonFault> findJsonFault(std::string_view text);

}  // namespace kova::ctl
