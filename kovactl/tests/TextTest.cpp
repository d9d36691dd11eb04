#include "Text.h"

#include <gtest/gtest.h>

namespace kova::ctl {
namespace {

using variant::Variant;

TEST(Text, PrintableEscapesControlCharacters) {
  EXPECT_EQ(printable("plain \xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80"),
            "plain \xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80");
  EXPECT_EQ(printable("a\nb\r\tc"), "a\\nb\\r\\tc");
  EXPECT_EQ(printable("\x1b[2J\x7f"), "\\x1b[2J\\x7f");
  EXPECT_EQ(printable(std::string_view("\0", 1)), "\\x00");
  EXPECT_EQ(printable("\xC2\x9b"
                      "31m"),
            "\\u009b31m")
      << "C1 controls";
  EXPECT_EQ(printable("\xE2\x80\xAE"), "\\u202e") << "right-to-left override";
  EXPECT_EQ(printable("\x9b\xC3"), "\\x9b\\xc3") << "not UTF-8";
  EXPECT_EQ(printable("\xC0\xAF\xED\xA0\x80"), "\\xc0\\xaf\\xed\\xa0\\x80")
      << "overlong form, surrogate";
}

TEST(Text, JsonEscapesAllControlCharacters) {
  const Variant value = Variant::Map{{"k\x7f", "\x1b[0m\xC2\x9b\xE2\x80\xAE\xC3\xA9"}};
  EXPECT_EQ(json(value), "{\"k\\u007f\":\"\\u001b[0m\\u009b\\u202e\xC3\xA9\"}");
  Variant back;
  ASSERT_GT(Variant::FromJSON(json(value), back), 0);
  EXPECT_EQ(back, value);
  EXPECT_EQ(json(Variant(Variant::Map{{"a", 1}}), 2), "{\n  \"a\": 1\n}");
}

TEST(Text, BytesAreShownInBinaryUnits) {
  EXPECT_EQ(humanBytes(0), "0 B");
  EXPECT_EQ(humanBytes(1023), "1023 B");
  EXPECT_EQ(humanBytes(1024), "1.0 KiB");
  EXPECT_EQ(humanBytes(99.96 * 1024), "100 KiB");
  EXPECT_EQ(humanBytes(1536.0 * 1024 * 1024), "1.5 GiB");
  EXPECT_EQ(humanBytes(1048575.9), "1.0 MiB") << "never 1024 KiB";
}

TEST(Text, DaysAreShownFromOneDay) {
  EXPECT_EQ(humanDuration(0), "00:00:00");
  EXPECT_EQ(humanDuration(86399), "23:59:59");
  EXPECT_EQ(humanDuration(3 * 86400 + 3661), "3 d 01:01:01");
}

TEST(Text, ClipCountsCharacters) {
  EXPECT_EQ(clip("\xC3\xA9\xC3\xA9\xC3\xA9", 2), "\xC3\xA9\xC3\xA9");
  EXPECT_EQ(clip("abc", 5), "abc");
  EXPECT_EQ(clip("abc", 0), "");
}

TEST(Text, DurationsDefaultToSeconds) {
  const std::pair<const char*, std::uint32_t> durations[] = {{"2", 2000},
                                                             {"0.05", 50},
                                                             {"1s", 1000},
                                                             {"1500ms", 1500},
                                                             {"2min", 120000},
                                                             {"1h", 3600000},
                                                             {"0.5h", 1800000},
                                                             {"2147483", 2147483000U},
                                                             {"0", 0},
                                                             {"0ms", 0},
                                                             {"2147483000ms", 2147483000U}};
  for (const auto& [text, expected] : durations) {
    std::uint32_t milliseconds = 77;
    EXPECT_TRUE(parseDuration(text, milliseconds)) << text;
    EXPECT_EQ(milliseconds, expected) << text;
  }
}

TEST(Text, InvalidDurationIsRefused) {
  for (const char* text :
       {"", "0.0001", "-1", "1e3", "nan", "0x10", "2147484", "597h", "1.2.3", " 1", ".", "5 s",
        "5sec", "s", "ms", "5S", "1194h", "2147483001ms", "0.4ms"}) {
    std::uint32_t milliseconds = 77;
    EXPECT_FALSE(parseDuration(text, milliseconds)) << text;
    EXPECT_EQ(milliseconds, 77U) << text;
  }
}

TEST(Wrap, ContinuationAlignsWithLastColumn) {
  EXPECT_EQ(wrap("one two three\n", 8), "one two\nthree\n");
  EXPECT_EQ(wrap("  -x   one two three\n", 14), "  -x   one two\n       three\n");
  EXPECT_EQ(wrap("  indented text", 12), "  indented\n  text");
  EXPECT_EQ(wrap("short\n\n  kept\n", 8), "short\n\n  kept\n");
  EXPECT_EQ(wrap("exactly8\n", 8), "exactly8\n");
}

TEST(Wrap, NarrowColumnMovesBelow) {
  EXPECT_EQ(wrap("  --long-option  one two three\n", 20), "  --long-option\n      one two three\n");
  EXPECT_EQ(wrap("  --long-option  one\n", 20), "  --long-option  one\n");
}

TEST(Wrap, LongWordsStayWhole) {
  EXPECT_EQ(wrap("averyverylongword and more", 8), "averyverylongword\nand more");
  EXPECT_EQ(wrap("  averyverylongword", 8), "  averyverylongword");
  EXPECT_EQ(wrap("  -x  averyverylongword b", 14), "  -x  averyverylongword\n      b");
}

TEST(Table, ValuesAreAligned) {
  EXPECT_EQ(table({{"a", "1"}, {"\xC3\xA9\xC3\xA9\xC3\xA9", "2"}}),
            "a    1\n\xC3\xA9\xC3\xA9\xC3\xA9  2\n");
  EXPECT_EQ(table({{"", "alone"}}), "alone\n");
  EXPECT_EQ(table({}), "");
}

TEST(Table, FlattenLabelsValuesWithPaths) {
  Variant value = Variant::Map{};
  value["b"]["arr"].pushToArray(7);
  value["b"]["arr"].pushToArray(Variant::Map{{"x", "y\n"}});
  value["a"] = Variant();
  EXPECT_EQ(flatten(value),
            (std::vector<Row>{{"a", "-"}, {"b.arr[0]", "7"}, {"b.arr[1].x", "y\\n"}}));
  EXPECT_EQ(flatten(Variant(true)), (std::vector<Row>{{"", "true"}}));
  EXPECT_EQ(flatten(Variant(Variant::Map{})), std::vector<Row>{});
}

}  // namespace
}  // namespace kova::ctl
