#include "Text.h"

#include <gtest/gtest.h>

#include "Md5.h"
#include "Table.h"

namespace kova::ctl {
namespace {

using variant::Variant;

TEST(Text, PrintableEscapesWhatSteersATerminal) {
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
  EXPECT_EQ(printable("\x9b\xC3"), "\\x9b\\xc3") << "bytes that are no UTF-8";
  EXPECT_EQ(printable("\xC0\xAF\xED\xA0\x80"), "\\xc0\\xaf\\xed\\xa0\\x80")
      << "overlong form, surrogate";
}

TEST(Text, JsonEscapesWhatItsGrammarLetsThrough) {
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

TEST(Text, DurationsShowDaysOnlyWhenThereAreSome) {
  EXPECT_EQ(humanDuration(0), "00:00:00");
  EXPECT_EQ(humanDuration(86399), "23:59:59");
  EXPECT_EQ(humanDuration(3 * 86400 + 3661), "3 d 01:01:01");
}

TEST(Text, ClipCountsCharactersNotBytes) {
  EXPECT_EQ(clip("\xC3\xA9\xC3\xA9\xC3\xA9", 2), "\xC3\xA9\xC3\xA9");
  EXPECT_EQ(clip("abc", 5), "abc");
  EXPECT_EQ(clip("abc", 0), "");
}

TEST(Text, SecondsMustBePositiveAndFitAMessage) {
  std::uint32_t milliseconds = 0;
  EXPECT_TRUE(parseSeconds("2", milliseconds));
  EXPECT_EQ(milliseconds, 2000U);
  EXPECT_TRUE(parseSeconds("0.05", milliseconds));
  EXPECT_EQ(milliseconds, 50U);
  EXPECT_TRUE(parseSeconds("4294967", milliseconds));
  EXPECT_EQ(milliseconds, 4294967000U);
  for (const char* text :
       {"", "0", "0.0001", "-1", "1s", "1e3", "nan", "0x10", "4294968", "1.2.3", " 1", "."}) {
    EXPECT_FALSE(parseSeconds(text, milliseconds)) << text;
  }
}

TEST(Table, ValuesStandUnderOneAnotherWhateverTheLabels) {
  EXPECT_EQ(table({{"a", "1"}, {"\xC3\xA9\xC3\xA9\xC3\xA9", "2"}}),
            "a    1\n\xC3\xA9\xC3\xA9\xC3\xA9  2\n");
  EXPECT_EQ(table({{"", "alone"}}), "alone\n");
  EXPECT_EQ(table({}), "");
}

TEST(Table, FlattenNamesEveryValueByItsPath) {
  Variant value = Variant::Map{};
  value["b"]["arr"].PushToArray(7);
  value["b"]["arr"].PushToArray(Variant::Map{{"x", "y\n"}});
  value["a"] = Variant();
  EXPECT_EQ(flatten(value),
            (std::vector<Row>{{"a", "-"}, {"b.arr[0]", "7"}, {"b.arr[1].x", "y\\n"}}));
  EXPECT_EQ(flatten(Variant(true)), (std::vector<Row>{{"", "true"}}));
  EXPECT_EQ(flatten(Variant(Variant::Map{})), std::vector<Row>{});
}

TEST(Md5, DigestsAFile) {
  std::string digest;
  ASSERT_TRUE(md5OfFile(KOVACTL_TEST_DATA "/abc.txt", digest));
  EXPECT_EQ(digest, "900150983cd24fb0d6963f7d28e17f72");  // RFC 1321, "abc"
  EXPECT_FALSE(md5OfFile(KOVACTL_TEST_DATA "/no-such-file", digest));
  EXPECT_FALSE(md5OfFile(KOVACTL_TEST_DATA, digest)) << "a folder";
}

}  // namespace
}  // namespace kova::ctl
