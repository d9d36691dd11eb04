#pragma once

#include <cstddef>
#include <optional>
#include <string_view>

namespace kova::utils::internal {

/// Position of a hash field in the text of an account file.
struct FieldRange {
  std::size_t begin;
  std::size_t length;
};

/// Finds the second field of the account's line in the text of passwd(5) or shadow(5). Uses the
/// first line that matches and has at least three fields and no NUL. The empty name, and names that
/// contain ":" or a line break, match no line.
std::optional<FieldRange> findHashField(std::string_view text, std::string_view user);

}  // namespace kova::utils::internal
