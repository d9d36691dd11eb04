#include "../../src/Chips.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/gpio.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <fstream>

namespace {

constexpr std::uint32_t kLines = 2;
const std::string kLongest(GPIO_MAX_NAME_SIZE, 'n');  // leaves no room for a NUL

int failure = 0;  // errno of all ioctls on lines; 0 for success
gpio_v2_line_request request{};
gpio_v2_line_values values{};

// A file in /dev is a chip whose label is its content; an empty file is not a chip.
int describeChip(int fd, gpiochip_info& info) {
  errno = ENOTTY;
  info.lines = kLines;
  return pread(fd, info.label, sizeof info.label, 0) > 0 ? 0 : -1;
}

int describeLine(gpio_v2_line_info& info) {
  if (info.offset > 0) kLongest.copy(info.name, sizeof info.name);
  return 0;
}

int requestLine(gpio_v2_line_request& given) {
  given.fd = open("/dev/null", O_RDONLY | O_CLOEXEC);
  request = given;
  return 0;
}

int readValues(gpio_v2_line_values& given) {
  given.bits = values.bits;
  values.mask = given.mask;
  return 0;
}

}  // namespace

/// Replaces the kernel's drivers.
extern "C" int ioctl(int fd, unsigned long operation, ...) noexcept {
  va_list arguments;
  va_start(arguments, operation);
  void* const argument = va_arg(arguments, void*);
  va_end(arguments);
  if (operation == GPIO_GET_CHIPINFO_IOCTL) {
    return describeChip(fd, *static_cast<gpiochip_info*>(argument));
  }
  errno = failure;
  if (failure != 0) return -1;
  switch (operation) {
    case GPIO_V2_GET_LINEINFO_IOCTL:
      return describeLine(*static_cast<gpio_v2_line_info*>(argument));
    case GPIO_V2_GET_LINE_IOCTL:
      return requestLine(*static_cast<gpio_v2_line_request*>(argument));
    default:
      return readValues(*static_cast<gpio_v2_line_values*>(argument));
  }
}

namespace kova::gpio {
namespace {

const Chip kChip{"/dev/gpiochip0", "soc", kLines};

class ChipsTest : public testing::Test {
 protected:
  void SetUp() override {
    failure = 0;
    std::ofstream(kChip.path) << kChip.label;
  }
};

TEST_F(ChipsTest, ListsChipsInNumericOrder) {
  for (const char* other : {"gpiochip", "gpiochipx", "gpiochip0x", "notachip0"}) {
    std::ofstream("/dev/" + std::string(other)) << "other";
  }
  std::ofstream("/dev/gpiochip6");
  for (const char* number : {"10", "9"}) {
    std::ofstream("/dev/gpiochip" + std::string(number)) << kLongest;
  }
  const std::vector<Chip> chips = listChips();
  ASSERT_EQ(chips.size(), 3U);
  EXPECT_EQ(chips[0].path, kChip.path);
  EXPECT_EQ(chips[0].label, kChip.label);
  EXPECT_EQ(chips[0].lines, kLines);
  EXPECT_EQ(chips[1].path, "/dev/gpiochip9");
  EXPECT_EQ(chips[1].label, kLongest);
  EXPECT_EQ(chips[2].path, "/dev/gpiochip10");
}

TEST_F(ChipsTest, NamesAllLinesOrNone) {
  EXPECT_EQ(lineNames(kChip), (std::vector<std::string>{"", kLongest}));
  EXPECT_TRUE(lineNames({"/dev/gone", "", kLines}).empty());
  failure = EIO;
  EXPECT_TRUE(lineNames(kChip).empty());
}

TEST_F(ChipsTest, OneLineIsRequestedAsInput) {
  EXPECT_TRUE(requestInput(kChip, 7));
  EXPECT_EQ(request.num_lines, 1U);
  EXPECT_EQ(request.offsets[0], 7U);
  EXPECT_EQ(request.config.flags, std::uint64_t{GPIO_V2_LINE_FLAG_INPUT});
  EXPECT_STREQ(request.consumer, "kova");
  EXPECT_FALSE(requestInput({"/dev/gone", "", kLines}, 0));
  EXPECT_EQ(errno, ENOENT);
  failure = EBUSY;
  EXPECT_FALSE(requestInput(kChip, 0));
  EXPECT_EQ(errno, EBUSY);
}

TEST_F(ChipsTest, LevelIsBitOfLine) {
  const utils::UniqueFd line = requestInput(kChip, 0);
  for (const unsigned bits : {0U, 1U, 2U, 3U}) {
    values.bits = bits;
    bool high = bits != 1;
    EXPECT_TRUE(readLevel(line, high));
    EXPECT_EQ(high, bits % 2 == 1) << bits;
    EXPECT_EQ(values.mask, 1U);
  }
  bool high = false;
  failure = ENODEV;
  EXPECT_FALSE(readLevel(line, high));
  EXPECT_EQ(errno, ENODEV);
}

}  // namespace
}  // namespace kova::gpio
