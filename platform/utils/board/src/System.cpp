#include "kova/utils/System.h"

#include "kova/utils/File.h"
#include "kova/utils/Parsing.h"
#include "kova/utils/Strings.h"

namespace kova::utils {
namespace {

constexpr char kFirmwareVersion[] = "/run/firmware_version";
constexpr char kBootId[] = "/proc/sys/kernel/random/boot_id";
constexpr std::size_t kMaxFileBytes = 65'536;
constexpr std::size_t kMaxBytes = 255;

std::string firstLineOf(const char* path) {
  std::string text;
  if (!File::ReadStringAll(path, text, kMaxFileBytes)) {
    return "";
  }
  std::string_view rest(text);
  std::string line(nextLine(rest).substr(0, kMaxBytes));
  trim(line);
  return line;
}

}  // namespace

std::string firmwareVersion() {
  return firstLineOf(kFirmwareVersion);
}

std::string bootId() {
  return firstLineOf(kBootId);
}

}  // namespace kova::utils
