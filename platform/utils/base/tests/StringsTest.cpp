#include "kova/utils/Strings.h"

#include <gtest/gtest.h>

namespace kova::utils {
namespace {

TEST(FormatTest, FillsInArguments) {
  EXPECT_EQ(format("%s is %d", "answer", 42), "answer is 42");
}

TEST(FormatTest, HoldsTextOfAnyLength) {
  const std::string text(1000000, 'x');
  EXPECT_EQ(format("<%s>", text.c_str()), "<" + text + ">");
}

TEST(FormatTest, MayBeEmpty) {
  EXPECT_EQ(format("%s", ""), "");
}

TEST(TrimTest, StripsWhiteSpaceAtBothEndsOnly) {
  std::string text = " \t\n\v\f\r a b \t\n\v\f\r ";
  trim(text);
  EXPECT_EQ(text, "a b");
}

TEST(TrimTest, WhiteSpaceAloneBecomesEmpty) {
  std::string blank = " \t\n\v\f\r";
  trim(blank);
  EXPECT_EQ(blank, "");
  trim(blank);
  EXPECT_EQ(blank, "");
}

TEST(TrimTest, KeepsNulsAndBytesAboveAscii) {
  std::string text("\0 x \xa0", 5);
  const std::string before = text;
  trim(text);
  EXPECT_EQ(text, before);
}

TEST(StartsWithTest, TextStartsWithEmptyTextAndItself) {
  EXPECT_TRUE(startsWith("", ""));
  EXPECT_TRUE(startsWith("abc", ""));
  EXPECT_TRUE(startsWith("abc", "ab"));
  EXPECT_TRUE(startsWith("abc", "abc"));
}

TEST(StartsWithTest, LongerOrOtherPrefixDoesNotMatch) {
  EXPECT_FALSE(startsWith("abc", "abcd"));
  EXPECT_FALSE(startsWith("abc", "b"));
  EXPECT_FALSE(startsWith("", "a"));
}

}  // namespace
}  // namespace kova::utils
