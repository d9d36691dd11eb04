#include "../src/BusText.h"

#include <gtest/gtest.h>

#include "kova/variant/Variant.h"

namespace kova::ipc {
namespace {

TEST(BusTextTest, AcceptsEveryDBusString) {
  for (const char* text :
       {"", "\x01", "\x7f", "text", "\xc3\xa9t\xc3\xa9", "\xc2\x80", "\xe0\xa0\x80", "\xed\x9f\xbf",
        "\xee\x80\x80", "\xef\xb7\x8f", "\xef\xb7\xb0", "\xef\xbf\xbd", "\xf0\x90\x80\x80",
        "\xf4\x8f\xbf\xbd"}) {
    EXPECT_TRUE(isBusText(text)) << variant::Variant(text).toJson();
  }
  for (const char* text : {"\x80", "\xc1\xbf", "\xe0\x9f\xbf", "\xed\xa0\x80", "\xf0\x8f\xbf\xbf",
                           "\xf4\x90\x80\x80", "\xf8\x88\x80\x80\x80", "\xc2", "\xe2\x82", "\xc2x",
                           "text\x80", "\xc3\xa9t\xc3", "\xed\xbf\xbf", "\xef\xb7\x90",
                           "\xef\xb7\xaf", "\xef\xbf\xbe", "\xef\xbf\xbf", "\xf0\x9f\xbf\xbf"}) {
    EXPECT_FALSE(isBusText(text)) << variant::Variant(text).toJson();
  }
  EXPECT_FALSE(isBusText({"\0", 1}));
  EXPECT_FALSE(isBusText({"text\0text", 9}));
}

}  // namespace
}  // namespace kova::ipc
