#include <gtest/gtest.h>

#include <cerrno>

#include "../../utils/tests/TemporaryFolder.h"
#include "FakeChips.h"
#include "kova/gpio/InputLine.h"

namespace kova::gpio {
namespace {

using fakes::FakeChip;
using fakes::fakeChips;
using fakes::fakeRequests;

class ChipLineTest : public testing::Test {
 protected:
  void SetUp() override {
    fakeChips = {{"soc", {"", "led", "", "status"}}, {"INT33FF:00", {"reset", "", "led"}}};
    fakeRequests = 0;
  }

  // The level of the line, or a negative errno value.
  static int level(InputLine& line) {
    bool high = false;
    errno = 0;
    return line.read(high) ? static_cast<int>(high) : -errno;
  }
  static int level(const std::string& name) { return level(*InputLine::of(name)); }
};

TEST_F(ChipLineTest, LineIsFoundByLabelAndOffset) {
  fakeChips[0].high[2] = true;
  EXPECT_EQ(level("soc:2"), 1);
  EXPECT_EQ(level("soc:3"), 0);
}

TEST_F(ChipLineTest, LabelMayContainColons) {
  fakeChips[1].high[1] = true;
  EXPECT_EQ(level("INT33FF:00:1"), 1);
  fakeChips[1].label = "x";
  EXPECT_EQ(level("x:1"), 1);
}

TEST_F(ChipLineTest, LineIsFoundByItsName) {
  fakeChips[1].high[0] = true;
  EXPECT_EQ(level("reset"), 1);
  EXPECT_EQ(level("status"), 0);
  fakeChips[1].names = {":1"};
  EXPECT_EQ(level(":1"), 1) << "not LABEL:OFFSET";
}

TEST_F(ChipLineTest, FirstOfSeveralWithOneNameCounts) {
  fakeChips[0].high[1] = true;
  EXPECT_EQ(level("led"), 1);
  fakeChips[1].label = "soc";
  EXPECT_EQ(level("soc:1"), 1);
}

TEST_F(ChipLineTest, UnknownLineFailsWithENODEV) {
  for (const char* name : {"other", "other:1", "re", "resett", "soc:", "soc:x", "soc:1x", "soc:-1",
                           "soc: 1", ":1", "soc:4294967296", ":", "gpiochip0"}) {
    EXPECT_EQ(level(name), -ENODEV) << name;
  }
  EXPECT_EQ(fakeRequests, 0);
}

TEST_F(ChipLineTest, OffsetBeyondChipIsInvalid) {
  EXPECT_EQ(level("soc:4"), -EINVAL);
  EXPECT_EQ(level("soc:4294967295"), -EINVAL);
}

TEST_F(ChipLineTest, LineIsRequestedOnce) {
  const auto line = InputLine::of("reset");
  EXPECT_EQ(fakeRequests, 0);
  EXPECT_EQ(level(*line), 0);
  fakeChips[1].high[0] = true;
  EXPECT_EQ(level(*line), 1);
  EXPECT_EQ(fakeRequests, 1);
}

TEST_F(ChipLineTest, BusyLineIsRetriedLater) {
  fakeChips[1].requestErrors[0] = EBUSY;
  const auto line = InputLine::of("reset");
  EXPECT_EQ(level(*line), -EBUSY);
  fakeChips[1].requestErrors.clear();
  EXPECT_EQ(level(*line), 0);
}

TEST_F(ChipLineTest, ClosedLineIsLookedUpAgain) {
  const auto line = InputLine::of("reset");
  EXPECT_EQ(level(*line), 0);
  fakeChips[1].readError = ENODEV;
  EXPECT_EQ(level(*line), -ENODEV);
  line->close();
  fakeChips = {{"new", {"", "reset"}, {{1, true}}}};
  EXPECT_EQ(level(*line), 1);
}

TEST_F(ChipLineTest, DescriptorsDoNotAccumulate) {
  const long before = tests::openDescriptors();
  {
    const auto line = InputLine::of("soc:1");
    for (int i = 0; i < 3; ++i) {
      EXPECT_EQ(level(*line), 0);
      EXPECT_EQ(tests::openDescriptors(), before + 1);
      line->close();
      EXPECT_EQ(tests::openDescriptors(), before);
    }
    EXPECT_EQ(level(*line), 0);
  }
  EXPECT_EQ(tests::openDescriptors(), before);
}

}  // namespace
}  // namespace kova::gpio
