#pragma once

#include <cstddef>
#include <optional>
#include <string_view>

namespace kova::utils::internal {

/// Where in the text of an account file a hash field stands.
struct FieldRange {
  std::size_t begin;
  std::size_t length;
};

/// Finds the second field of the account's line in the text of passwd(5) or shadow(5). A line
/// counts when it has at least three fields and no NUL; the first one counts. Names with ":" or a
/// line break, and the empty name, are on no line.
std::optional<FieldRange> findHashField(std::string_view text, std::string_view user);

}  // namespace kova::utils::internal
