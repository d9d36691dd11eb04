#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "kova/variant/Variant.h"

// Whatever parses is written and parsed again to the same value.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using kova::variant::Variant;
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  Variant value("kept");
  const int read = Variant::FromJSON(text, value);
  if (read < 0) {
    if (!(value == Variant("kept"))) {
      std::abort();
    }
    return 0;
  }
  Variant again;
  if (read != static_cast<int>(size) || Variant::FromJSON(value.toJson(), again) < 0 ||
      !(again == value)) {
    std::abort();
  }
  return 0;
}
