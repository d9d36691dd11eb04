#include "JsonFault.h"

#include <gtest/gtest.h>

#include <random>

#include "kova/variant/Variant.h"

namespace kova::ctl {
namespace {

using variant::Variant;

std::string faultOf(std::string_view text) {
  const auto fault = findJsonFault(text);
  return fault ? std::to_string(fault->offset) + ": " + fault->reason : "none";
}

TEST(JsonFault, FindsNoneInJson) {
  for (const char* text : {"0", "-0.5e+10", " true ", "null", "\"\\u00e9\\ud83d\\ude00\\n\"", "[]",
                           "{}", "[1,[2,{\"a\":\"b\"}],false]", "{\"a\":{},\"b\":[ ]}"}) {
    EXPECT_EQ(faultOf(text), "none") << text;
  }
}

TEST(JsonFault, PointsAtTheFirstByteThatDoesNotFit) {
  EXPECT_EQ(faultOf("{\"a\" 1}"), "5: a \":\" is missing");
  EXPECT_EQ(faultOf("{a:1}"), "1: a key in double quotes should stand here");
  EXPECT_EQ(faultOf("[1 2]"), "3: a \",\" or \"]\" is missing");
  EXPECT_EQ(faultOf("{\"a\":1"), "6: a \",\" or \"}\" is missing");
  EXPECT_EQ(faultOf("1 2"), "2: something follows the value");
  EXPECT_EQ(faultOf("tru"), "0: an unknown word (text needs double quotes)");
  EXPECT_EQ(faultOf("-"), "1: a digit is missing");
  EXPECT_EQ(faultOf("01"), "1: something follows the value");
  EXPECT_EQ(faultOf("1.e5"), "2: a digit is missing");
  EXPECT_EQ(faultOf("\"abc"), "4: the closing quote of a string is missing");
  EXPECT_EQ(faultOf("\"a\nb\""), "2: a control character must be written as an escape");
  EXPECT_EQ(faultOf("\"\\x\""), "2: an unknown escape");
  EXPECT_EQ(faultOf("\"\\u12g4\""), "5: \\u needs four hexadecimal digits");
  EXPECT_EQ(faultOf("\"\\udc00\""), "1: a lone surrogate");
  EXPECT_EQ(faultOf("\"\xC3(\""), "1: this is not UTF-8");
  EXPECT_EQ(faultOf(std::string(33, '[')), "32: nested too deeply");
}

// Whatever the library refuses must be explained, and what it takes must not be complained of.
TEST(JsonFault, AgreesWithTheLibraryOnGarbledJson) {
  const std::string seed =
      "{\"a\":[1,-2.5e3,true,false,null,\"t\\u00e9\\n\\ud83d\\ude00\"],\"b\":{\"\":\"\xC3\xA9\"}}";
  const std::string alphabet = "{}[]\",:\\ue0 1-+.trfn\x01\xC3\xA9\xED";
  std::mt19937 random(20260131);
  int refused = 0;
  for (int round = 0; round < 20000; ++round) {
    std::string text = seed;
    for (unsigned edits = 1 + random() % 3; edits > 0; --edits) {
      const std::size_t at = random() % text.size();
      if (random() % 2 == 0) {
        text[at] = alphabet[random() % alphabet.size()];
      } else {
        text.erase(at, 1);
      }
    }
    Variant value;
    const bool taken = Variant::FromJSON(text, value) >= 0;
    refused += taken ? 0 : 1;
    ASSERT_EQ(findJsonFault(text).has_value(), !taken) << text << " " << faultOf(text);
  }
  EXPECT_GT(refused, 10000);
}

}  // namespace
}  // namespace kova::ctl
