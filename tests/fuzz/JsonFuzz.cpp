#include <cstdint>
#include <string_view>

#include "Require.h"
#include "kova/variant/Variant.h"

// Every value that parses survives a round trip through its text.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using kova::variant::Variant;
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  Variant value("kept");
  const int read = Variant::FromJSON(text, value);
  if (read < 0) {
    require(value == Variant("kept"));
    return 0;
  }
  Variant again;
  require(read == static_cast<int>(size));
  require(Variant::FromJSON(value.toJson(), again) >= 0 && again == value);
  return 0;
}
