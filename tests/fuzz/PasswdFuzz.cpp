// The reader of /etc/passwd and /etc/shadow finds only the field of the requested name. The first
// line of the input is the name, the rest the file.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "../../platform/utils/accounts/src/AccountFile.h"
#include "Require.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view input(reinterpret_cast<const char*>(data), size);
  const std::size_t end = std::min(input.find('\n'), size);
  const std::string_view user = input.substr(0, end);
  const std::string_view text = input.substr(std::min(end + 1, size));
  const auto field = kova::utils::internal::findHashField(text, user);
  if (!field) {
    return 0;
  }
  require(field->begin + field->length < text.size());
  require(text[field->begin + field->length] == ':');
  const std::string_view hash = text.substr(field->begin, field->length);
  require(hash.find_first_of(std::string_view(":\n\0", 3)) == std::string_view::npos);
  require(field->begin > user.size());
  const std::size_t line = field->begin - user.size() - 1;
  require(text.substr(line, user.size()) == user && text[field->begin - 1] == ':');
  require(line == 0 || text[line - 1] == '\n');
  return 0;
}
