#include "AccountFile.h"

#include <algorithm>

namespace kova::utils::internal {
namespace {

std::optional<FieldRange> hashFieldOf(std::string_view line, std::string_view user) {
  if (!line.starts_with(user) || line.find('\0') != std::string_view::npos) {
    return std::nullopt;
  }
  const std::size_t begin = user.size() + 1;
  if (line.size() < begin || line[user.size()] != ':') {
    return std::nullopt;
  }
  const std::size_t end = line.find(':', begin);
  if (end == std::string_view::npos) {
    return std::nullopt;
  }
  return FieldRange{begin, end - begin};
}

}  // namespace

std::optional<FieldRange> findHashField(std::string_view text, std::string_view user) {
  if (user.empty() || user.find_first_of(":\n") != std::string_view::npos) {
    return std::nullopt;
  }
  std::size_t at = 0;
  while (at < text.size()) {
    const std::size_t end = std::min(text.find('\n', at), text.size());
    if (auto field = hashFieldOf(text.substr(at, end - at), user)) {
      field->begin += at;
      return field;
    }
    at = end + 1;
  }
  return std::nullopt;
}

}  // namespace kova::utils::internal
