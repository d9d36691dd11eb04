// Uses <linux/gpio.h> directly: four ioctls of a stable interface need no library, and the GPIO
// libraries differ in name and API between distributions.
#include "Chips.h"

#include <dirent.h>
#include <fcntl.h>
#include <linux/gpio.h>
#include <sys/ioctl.h>

#include <algorithm>
#include <charconv>
#include <cstring>
#include <memory>
#include <string_view>

namespace kova::gpio {
namespace {

constexpr char kFolder[] = "/dev";
constexpr std::string_view kPrefix = "gpiochip";
constexpr char kConsumer[] = "kova";

// The kernel need not terminate its strings with a NUL.
template <std::size_t kSize>
std::string textOf(const char (&field)[kSize]) {
  return {field, strnlen(field, kSize)};
}

utils::UniqueFd openChip(const std::string& path) {
  return utils::UniqueFd(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
}

// Numbers of the files named like a chip, in ascending order.
std::vector<unsigned> listNumbers() {
  std::vector<unsigned> numbers;
  const std::unique_ptr<DIR, int (*)(DIR*)> folder(opendir(kFolder), closedir);
  while (const dirent* entry = folder ? readdir(folder.get()) : nullptr) {
    const std::string_view name = entry->d_name;
    unsigned number = 0;
    if (name.starts_with(kPrefix)) {
      const char* end = name.data() + name.size();
      const auto [stop, error] = std::from_chars(name.data() + kPrefix.size(), end, number);
      if (error == std::errc() && stop == end) {
        numbers.push_back(number);
      }
    }
  }
  std::sort(numbers.begin(), numbers.end());
  return numbers;
}

}  // namespace

std::vector<Chip> listChips() {
  std::vector<Chip> chips;
  for (const unsigned number : listNumbers()) {
    std::string path = std::string(kFolder) + "/" + std::string(kPrefix) + std::to_string(number);
    const utils::UniqueFd device = openChip(path);
    gpiochip_info info{};
    if (device && ioctl(device.get(), GPIO_GET_CHIPINFO_IOCTL, &info) == 0) {
      chips.push_back({std::move(path), textOf(info.label), info.lines});
    }
  }
  return chips;
}

std::vector<std::string> lineNames(const Chip& chip) {
  std::vector<std::string> names;
  const utils::UniqueFd device = openChip(chip.path);
  for (std::uint32_t offset = 0; device && offset < chip.lines; ++offset) {
    gpio_v2_line_info info{};
    info.offset = offset;
    if (ioctl(device.get(), GPIO_V2_GET_LINEINFO_IOCTL, &info) != 0) {
      return {};
    }
    names.push_back(textOf(info.name));
  }
  return names;
}

utils::UniqueFd requestInput(const Chip& chip, std::uint32_t offset) {
  const utils::UniqueFd device = openChip(chip.path);
  gpio_v2_line_request request{};
  request.offsets[0] = offset;
  request.num_lines = 1;
  request.config.flags = GPIO_V2_LINE_FLAG_INPUT;
  std::memcpy(request.consumer, kConsumer, sizeof kConsumer);
  if (!device || ioctl(device.get(), GPIO_V2_GET_LINE_IOCTL, &request) != 0) {
    return {};
  }
  return utils::UniqueFd(request.fd);
}

bool readLevel(const utils::UniqueFd& line, bool& high) {
  gpio_v2_line_values values{};
  values.mask = 1;
  if (ioctl(line.get(), GPIO_V2_LINE_GET_VALUES_IOCTL, &values) != 0) {
    return false;
  }
  high = (values.bits & 1U) != 0;
  return true;
}

}  // namespace kova::gpio
