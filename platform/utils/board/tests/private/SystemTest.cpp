#include "kova/utils/System.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>

namespace kova::utils {
namespace {

constexpr char kFile[] = "/run/firmware_version";

TEST(SystemTest, FirmwareVersionIsFirstLine) {
  unlink(kFile);
  EXPECT_EQ(firmwareVersion(), "");
  std::ofstream(kFile) << " 1.2.3-rc4 \nbuilt today\n";
  EXPECT_EQ(firmwareVersion(), "1.2.3-rc4");
  std::ofstream(kFile) << std::string(1'000, 'x');
  EXPECT_EQ(firmwareVersion(), std::string(255, 'x'));
  std::ofstream(kFile) << std::string(100'000, 'x');
  EXPECT_EQ(firmwareVersion(), "");
  unlink(kFile);
}

TEST(SystemTest, BootIdIsOfKernel) {
  std::string id;
  std::ifstream("/proc/sys/kernel/random/boot_id") >> id;
  EXPECT_EQ(id.size(), 36U);
  EXPECT_EQ(bootId(), id);
}

}  // namespace
}  // namespace kova::utils
