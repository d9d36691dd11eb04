#include <cstdint>
#include <string>
#include <string_view>

#include "../../platform/ipc/src/BusText.h"
#include "../../platform/ipc/src/ObjectServer.h"
#include "Require.h"

// The input serves as the path of an object below a folder and as a text for display. Only the
// canonical path of a number names an object; display text is valid, bounded, and idempotent.

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  const std::string folder = "/kova/transfers";
  for (const std::string& path : {text, folder + text, folder + "/" + text}) {
    const std::uint64_t number = kova::ipc::objectNumber(folder, path.c_str());
    require(number == 0 || folder + "/" + std::to_string(number) == path.c_str());
  }
  constexpr std::size_t kMost = 64;
  const std::string shown = kova::ipc::shownText(text, kMost);
  require(shown.size() <= kMost && kova::ipc::isBusText(shown) &&
          kova::ipc::shownText(shown, kMost) == shown);
  require(size > kMost || !kova::ipc::isBusText(text) || shown == text);
  return 0;
}
