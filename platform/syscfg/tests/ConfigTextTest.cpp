#include "../src/ConfigText.h"

#include <gtest/gtest.h>

namespace kova::syscfg::internal {
namespace {

using namespace std::string_literals;

std::string roundTrip(const std::string& text) {
  return formatConfig(parseConfig(text));
}

TEST(ConfigTextTest, ValueFollowsFirstEqualsSign) {
  const auto lines = parseConfig("a.b=c=d \r\nempty=\n");
  ASSERT_EQ(lines.size(), 2U);
  EXPECT_EQ(lines[0].key, "a.b");
  EXPECT_EQ(lines[0].value, "c=d \r");
  EXPECT_EQ(lines[1].key, "empty");
  EXPECT_EQ(lines[1].value, "");
}

TEST(ConfigTextTest, CommentsBlanksAndKeylessLinesAreNotSettings) {
  for (const ConfigLine& line : parseConfig("# a=b\n#a=b\n\nno sign\n=value\n")) {
    EXPECT_EQ(line.key, "");
  }
}

TEST(ConfigTextTest, EveryLineIsKept) {
  for (const std::string& text : {std::string(), std::string("\n"), std::string("\n\na=b\n\n"),
                                  std::string("# c\r\n=x\nkey\n a = b \n"), "a=\0b\n\0\n"s}) {
    EXPECT_EQ(roundTrip(text), text);
  }
}

TEST(ConfigTextTest, MissingFinalLineBreakIsAdded) {
  EXPECT_EQ(roundTrip("a=b"), "a=b\n");
  EXPECT_EQ(roundTrip("a=b\nrest"), "a=b\nrest\n");
}

TEST(ConfigTextTest, KeyIsReadBackFromItsLine) {
  for (const char* key : {"a", "users.1.name", "a b", "a#", "\xc3\xa4"}) {
    EXPECT_TRUE(isKey(key)) << key;
    EXPECT_EQ(parseConfig(std::string(key) + "=v").front().key, key);
  }
  for (const char* key : {"", "=", "a=b", "#a", " a", "a ", "\ta", "a\v", "a\nb", "a\rb", " "}) {
    EXPECT_FALSE(isKey(key)) << key;
  }
  EXPECT_FALSE(isKey(std::string_view("a\0b", 3)));
}

}  // namespace
}  // namespace kova::syscfg::internal
