#include "Repeats.h"

#include <gmock/gmock.h>

namespace kova::logger {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class RepeatsTest : public testing::Test {
 protected:
  /// The lines written for a line with this text, `ms` after the previous one.
  std::vector<std::string> pass(const std::string& text, std::uint64_t ms = 10, int level = 3) {
    now_ += ms;
    return textsOf(repeats_.pass({level, text}, now_));
  }

  /// The counts due `ms` later.
  std::vector<std::string> takeDue(std::uint64_t ms) {
    now_ += ms;
    return textsOf(repeats_.takeDue(now_));
  }

  std::vector<std::string> takeCounted() { return textsOf(repeats_.takeCounted()); }

 private:
  static std::vector<std::string> textsOf(const std::vector<Line>& lines) {
    std::vector<std::string> texts;
    for (const auto& line : lines) {
      texts.push_back(line.text);
    }
    return texts;
  }

  Repeats repeats_{0};
  std::uint64_t now_ = 1;
};

TEST_F(RepeatsTest, FirstLineIsWrittenAtOnce) {
  EXPECT_THAT(pass("a"), ElementsAre("a"));
  EXPECT_THAT(takeCounted(), IsEmpty());
}

TEST_F(RepeatsTest, RepetitionsAreWrittenOncePerSecond) {
  pass("a");
  std::vector<std::string> written;
  for (int i = 0; i < 250; ++i) {
    for (const auto& text : pass("a")) {
      written.push_back(text);
    }
  }
  EXPECT_THAT(written, ElementsAre("a ... repeated 100 times", "a ... repeated 100 times"));
  EXPECT_THAT(takeCounted(), ElementsAre("a ... repeated 50 times"));
  EXPECT_THAT(takeCounted(), IsEmpty());
}

TEST_F(RepeatsTest, CountIsDueAfterOneSecondOfSilence) {
  pass("a");
  pass("a");
  pass("a");
  EXPECT_THAT(takeDue(979), IsEmpty());
  EXPECT_THAT(takeDue(1), ElementsAre("a ... repeated 2 times"));
  EXPECT_THAT(takeDue(5000), IsEmpty());
}

TEST_F(RepeatsTest, CountPrecedesAnotherLine) {
  pass("a");
  pass("a");
  pass("a");
  EXPECT_THAT(pass("b"), ElementsAre("a ... repeated 2 times", "b"));
}

TEST_F(RepeatsTest, SingleRepetitionIsWrittenUnchanged) {
  pass("a");
  EXPECT_THAT(pass("a"), IsEmpty());
  EXPECT_THAT(pass("b"), ElementsAre("a", "b"));
}

TEST_F(RepeatsTest, LineAfterOneSecondIsNotRepetition) {
  pass("a");
  EXPECT_THAT(pass("a", 999), IsEmpty());
  EXPECT_THAT(pass("a", 1000), ElementsAre("a ... repeated 2 times"));
  EXPECT_THAT(pass("a", 1000), ElementsAre("a"));
}

TEST_F(RepeatsTest, LevelDistinguishesLines) {
  pass("a");
  EXPECT_THAT(pass("a", 10, 6), ElementsAre("a"));
}

TEST_F(RepeatsTest, CycleOfUpToFourIsCountedOnceSeenTwice) {
  for (const std::string cycle : {"ab", "cdef", "ghijk"}) {
    const bool counted = cycle.size() <= 4;
    for (int round = 0; round < 4; ++round) {
      for (const char letter : cycle) {
        EXPECT_EQ(pass({letter}).size(), counted && round >= 2 ? 0U : 1U) << letter << round;
      }
    }
    EXPECT_EQ(takeCounted().size(), counted ? cycle.size() : 0U);
  }
}

TEST_F(RepeatsTest, CycleWithChangingLineIsNotCounted) {
  for (int i = 0; i < 5; ++i) {
    EXPECT_THAT(pass("down"), ElementsAre("down"));
    const std::string up = "up after " + std::to_string(i);
    EXPECT_THAT(pass(up), ElementsAre(up));
  }
}

TEST(RepeatsFreely, FirstLinesInSuccessionAreWritten) {
  Repeats repeats(3);
  const auto written = [&](const char* text) { return repeats.pass({3, text}, 5000).size(); };
  for (int row = 0; row < 2; ++row) {
    for (int i = 0; i < 4; ++i) {
      EXPECT_EQ(written("a"), 1U);
    }
    EXPECT_EQ(written("a"), 0U);
    EXPECT_EQ(written("a"), 0U);
    EXPECT_EQ(written("b"), 2U);
  }
}

TEST_F(RepeatsTest, LongLinesAreWrittenEveryTime) {
  const std::string longest(1024, 'l');
  pass(longest);
  EXPECT_THAT(pass(longest), IsEmpty());
  pass("b");
  pass(longest + "+");
  EXPECT_THAT(pass(longest + "+"), ElementsAre(longest + "+"));
  EXPECT_THAT(pass("b"), ElementsAre("b"));
}

}  // namespace
}  // namespace kova::logger
