#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "kova/variant/Variant.h"

namespace kova::variant {
namespace {

Variant parsed(std::string_view text) {
  Variant value;
  EXPECT_EQ(Variant::FromJSON(text, value), static_cast<int>(text.size())) << text;
  return value;
}

TEST(VariantJson, ParsesEveryKindOfValue) {
  EXPECT_EQ(parsed("null"), Variant());
  EXPECT_EQ(parsed("true"), Variant(true));
  EXPECT_EQ(parsed(" \"a\\u00e4\\n\" "), Variant("a\xc3\xa4\n"));
  EXPECT_EQ(parsed("[1,[],{}]"),
            Variant(Variant::Array{1, Variant(Variant::Array{}), Variant(Variant::Map{})}));
  EXPECT_EQ(parsed(R"({"a":{"b":[false]}})"),
            Variant(Variant::Map{{"a", Variant::Map{{"b", Variant::Array{false}}}}}));
}

TEST(VariantJson, IntegerTakesSmallestSufficientWidth) {
  EXPECT_EQ(parsed("2147483647"), Variant(std::numeric_limits<std::int32_t>::max()));
  EXPECT_EQ(parsed("2147483648"), Variant(std::int64_t{2147483648}));
  EXPECT_EQ(parsed("-2147483648"), Variant(std::numeric_limits<std::int32_t>::min()));
  EXPECT_EQ(parsed("-2147483649"), Variant(std::int64_t{-2147483649}));
  EXPECT_EQ(parsed("9223372036854775807"), Variant(std::numeric_limits<std::int64_t>::max()));
  EXPECT_EQ(parsed("9223372036854775808"), Variant(std::uint64_t{9223372036854775808U}));
  EXPECT_EQ(parsed("18446744073709551615"), Variant(std::numeric_limits<std::uint64_t>::max()));
  EXPECT_EQ(parsed("18446744073709551616"), Variant(18446744073709551616.0));
  EXPECT_EQ(parsed("1.5"), Variant(1.5));
  EXPECT_EQ(parsed("1e2"), Variant(100.0));
}

TEST(VariantJson, LastOfEqualKeysCounts) {
  EXPECT_EQ(parsed(R"({"a":1,"a":2})"), Variant(Variant::Map{{"a", 2}}));
}

TEST(VariantJson, InvalidJsonIsRefusedAndResultKept) {
  for (const std::string_view text :
       {"",      " ",       "{",        "}",     "[1,]",     "{\"a\":1,}",   "{'a':1}",
        "nul",   "NaN",     "Infinity", "01",    "+1",       ".5",           "1.",
        "0x10",  "1 2",     "[1] x",    "\"a",   "\"\t\"",   "\"\\x41\"",    "\"\\ud800\"",
        "{1:2}", "// c\n1", "/**/1",    "1e999", "\"\xff\"", "\"\xc0\x80\"", "\xEF\xBB\xBF[]"}) {
    Variant value("kept");
    EXPECT_EQ(Variant::FromJSON(text, value), -1) << text;
    EXPECT_EQ(value, Variant("kept")) << text;
  }
  Variant value;
  EXPECT_EQ(Variant::FromJSON(std::string_view("1\0", 2), value), -1);
}

TEST(VariantJson, NestingIsBounded) {
  const auto nested = [](int depth) {
    return std::string(static_cast<std::size_t>(depth), '[') +
           std::string(static_cast<std::size_t>(depth), ']');
  };
  Variant value;
  EXPECT_GT(Variant::FromJSON(nested(Variant::kMaxDepth), value), 0);
  EXPECT_EQ(Variant::FromJSON(nested(Variant::kMaxDepth + 1), value), -2);
  EXPECT_EQ(Variant::FromJSON(std::string(900'000, '['), value), -2);
}

TEST(VariantJson, SizeIsBounded) {
  Variant value;
  EXPECT_EQ(Variant::FromJSON("\"" + std::string(Variant::kMaxJsonSize - 2, 'a') + "\"", value),
            static_cast<int>(Variant::kMaxJsonSize));
  EXPECT_EQ(Variant::FromJSON("\"" + std::string(Variant::kMaxJsonSize - 1, 'a') + "\"", value),
            -3);
}

std::string errorOf(std::string_view text) {
  Variant value;
  std::string error;
  EXPECT_LT(Variant::FromJSON(text, value, error), 0) << text;
  return error;
}

TEST(VariantJson, ErrorNamesPositionAndReason) {
  EXPECT_EQ(errorOf("{\"a - b\" 1}"), "position 10: unexpected number literal; expected ':'");
  EXPECT_EQ(errorOf("{a:1}"), "position 2: invalid literal; expected string literal");
  EXPECT_EQ(errorOf("[1 2]"), "position 4: unexpected number literal; expected ']'");
  EXPECT_EQ(errorOf("\"a\nb\""),
            "position 3: invalid string: control character U+000A (LF) must be escaped to \\u000A "
            "or \\n");
  EXPECT_EQ(errorOf("1e999"), "position 5: number overflow parsing '1e999'");
  EXPECT_EQ(errorOf(std::string(33, '[')), "nested deeper than 32 levels");
  EXPECT_EQ(errorOf(std::string_view("1\0", 2)), "a byte order mark or NUL byte is not allowed");
  EXPECT_EQ(errorOf(std::string(Variant::kMaxJsonSize + 1, ' ')), "longer than 1048576 bytes");
  EXPECT_LT(errorOf("\"" + std::string(100'000, 'a')).size(), 100U) << "the token is not quoted";
}

TEST(VariantJson, WritesWhatItParsed) {
  const std::string text = R"({"array":[1,-2,1.5],"empty":null,"flag":true,"text":"ä\n"})";
  EXPECT_EQ(parsed(text).toJson(), text);
}

TEST(VariantJson, WritesNearestValueForWhatJsonCannotHold) {
  EXPECT_EQ(Variant(std::nan("")).toJson(), "null");
  EXPECT_EQ(Variant(std::numeric_limits<double>::infinity()).toJson(), "null");
  EXPECT_EQ(Variant(std::string("a\xff")).toJson(), "\"a\xef\xbf\xbd\"");
  EXPECT_EQ(Variant(std::string("a\0b", 3)).toJson(), "\"a\\u0000b\"");
  EXPECT_EQ(Variant(timeval{0, 5}).toJson(), "\"1970-01-01T00:00:00.000005Z\"");
}

TEST(VariantJson, WritesTimesBeyondCalendarAsSeconds) {
  EXPECT_EQ(Variant(timeval{253402300799, 999'999}).toJson(), "\"9999-12-31T23:59:59.999999Z\"");
  EXPECT_EQ(Variant(timeval{std::numeric_limits<std::int64_t>::max(), 0}).toJson(),
            "\"9223372036854775807\"");
}

TEST(VariantJson, IndentsForReaders) {
  EXPECT_EQ(Variant(Variant::Map{{"a", 1}}).toJson(2), "{\n  \"a\": 1\n}");
}

}  // namespace
}  // namespace kova::variant
