#include "kova/utils/Strings.h"

#include <gtest/gtest.h>

#include "kova/utils/Utf8.h"

namespace kova::utils {
namespace {

TEST(FormatTest, FillsInArguments) {
  EXPECT_EQ(format("%s is %d", "answer", 42), "answer is 42");
  EXPECT_EQ(format("%d", 7), "7");
  EXPECT_EQ(format("%s", ""), "");
}

TEST(FormatTest, HoldsTextOfAnyLength) {
  const std::string text(1000000, 'x');
  EXPECT_EQ(format("<%s>", text.c_str()), "<" + text + ">");
}

std::string trimmed(std::string text) {
  trim(text);
  return text;
}

TEST(TrimTest, StripsWhiteSpaceAtBothEndsOnly) {
  EXPECT_EQ(trimmed(" \t\n\v\f\r a b \t\n\v\f\r "), "a b");
  EXPECT_EQ(trimmed(" \t\n\v\f\r"), "");
  EXPECT_EQ(trimmed(""), "");
}

TEST(TrimTest, KeepsNulsAndBytesAboveAscii) {
  const std::string text("\0 x \xa0", 5);
  EXPECT_EQ(trimmed(text), text);
}

TEST(HexadecimalTest, HasTwoLowerCaseDigitsPerByte) {
  const unsigned char bytes[] = {0x00, 0x0F, 0xA5, 0xFF};
  EXPECT_EQ(hexadecimal(bytes), "000fa5ff");
  EXPECT_EQ(hexadecimal({}), "");
}

TEST(StartsWithTest, ComparesWholePrefix) {
  EXPECT_TRUE(startsWith("", ""));
  EXPECT_TRUE(startsWith("abc", ""));
  EXPECT_TRUE(startsWith("abc", "ab"));
  EXPECT_TRUE(startsWith("abc", "abc"));
  EXPECT_FALSE(startsWith("abc", "abcd"));
  EXPECT_FALSE(startsWith("abc", "b"));
  EXPECT_FALSE(startsWith("", "a"));
}

TEST(DecodeUtf8Test, AcceptsFirstAndLastOfEveryLength) {
  const struct {
    std::string bytes;
    char32_t code;
  } cases[] = {
      {std::string(1, '\0'), 0},
      {"\x7f", 0x7f},
      {"\xc2\x80", 0x80},
      {"\xdf\xbf", 0x7ff},
      {"\xe0\xa0\x80", 0x800},
      {"\xed\x9f\xbf", 0xd7ff},
      {"\xee\x80\x80", 0xe000},
      {"\xef\xbf\xbf", 0xffff},
      {"\xf0\x90\x80\x80", 0x10000},
      {"\xf3\xbf\xbf\xbf", 0xfffff},
      {"\xf4\x8f\xbf\xbf", 0x10ffff},
  };
  for (const auto& [bytes, code] : cases) {
    for (const std::string& rest : {std::string(), std::string("x")}) {
      char32_t decoded = 1;
      EXPECT_EQ(decodeUtf8(bytes + rest, decoded), bytes.size());
      EXPECT_EQ(decoded, code);
    }
    for (std::size_t size = 0; size < bytes.size(); ++size) {
      char32_t decoded = 1;
      EXPECT_EQ(decodeUtf8(bytes.substr(0, size), decoded), 0U) << bytes << " cut to " << size;
    }
  }
}

TEST(DecodeUtf8Test, RejectsInvalidSequences) {
  for (const char* bytes : {"\x80", "\xbf", "\xc1\xbf", "\xe0\x9f\xbf", "\xed\xa0\x80",
                            "\xed\xbf\xbf", "\xf0\x8f\xbf\xbf", "\xf4\x90\x80\x80",
                            "\xf8\x88\x80\x80\x80", "\xff", "\xc2x", "\xc2\xc0", "\xe1\x80x"}) {
    char32_t code = 0;
    EXPECT_EQ(decodeUtf8(bytes, code), 0U) << bytes;
  }
}

}  // namespace
}  // namespace kova::utils
