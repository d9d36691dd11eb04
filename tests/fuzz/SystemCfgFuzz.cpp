// The parser of /etc/system.cfg: no line is lost, and no setting can turn into two.

#include <cstddef>
#include <cstdint>

#include "../../platform/syscfg/src/ConfigText.h"
#include "Require.h"

using namespace kova::syscfg;

namespace {

// Every setting that set() accepts reads back from the file as the same single setting.
void checkSetting(const ConfigLine& setting) {
  if (!internal::isKey(setting.key) || !internal::isValue(setting.value)) {
    return;
  }
  const auto lines = internal::parseConfig(internal::formatConfig({setting}));
  require(lines.size() == 1);
  require(lines[0].key == setting.key && lines[0].value == setting.value);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  const auto lines = internal::parseConfig(text);
  const bool whole = text.empty() || text.ends_with('\n');
  require(internal::formatConfig(lines) == (whole ? text : text + "\n"));
  for (const ConfigLine& line : lines) {
    checkSetting(line);
  }
  const std::size_t half = size / 2;
  checkSetting({text.substr(0, half), text.substr(half)});
  return 0;
}
