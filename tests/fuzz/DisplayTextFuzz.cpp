#include <cstdint>
#include <string>
#include <string_view>

#include "DisplayText.h"
#include "Require.h"
#include "kova/utils/Utf8.h"

using namespace kova::ctlserver;

namespace {

/// Whether `text` is UTF-8 without control characters.
bool isShowable(std::string_view text) {
  while (!text.empty()) {
    char32_t code = 0;
    const std::size_t length = kova::utils::decodeUtf8(text, code);
    if (length == 0 || code < 0x20 || (code >= 0x7F && code < 0xA0)) {
      return false;
    }
    text.remove_prefix(length);
  }
  return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  for (const std::size_t most : {3U, 16U, 512U}) {
    const std::string shown = displayText(text, most);
    require(shown.size() <= most && isShowable(shown));
    require(displayText(shown, most) == shown);
  }
  const std::string userInfo(userInfoOf(text));
  const std::string clean = withoutUserInfo(text);
  require(userInfoOf(clean).empty() || clean.size() < text.size());
  const std::string words = withoutCredentials("no route to " + text + " from here", userInfo);
  require(words.size() <= text.size() + 22);
  require(userInfo.empty() || words.find(userInfo + "@") == std::string::npos);
  sentence(words);
  return 0;
}
