#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "../src/Protocol.h"
#include "../src/Wire.h"
#include "Nesting.h"
#include "OfflineBus.h"

namespace kova::ipc::wire {
namespace {

using testing::inArrays;
using testing::inMaps;
using testing::OfflineBus;
using variant::Variant;
using variant::VariantType;

class WireTest : public ::testing::Test {
 protected:
  static Variant holding(const Variant& value) {
    Variant map;
    map["key"] = value;
    return map;
  }

  MessagePtr encoded(const Variant& body) {
    MessagePtr message = bus_.newMessage();
    if (!encode(body, message.get(), reason_)) {
      return nullptr;
    }
    return bus_.roundtrip(message.get());
  }

  // The D-Bus type of the marshalled value.
  std::string wireType(const Variant& value) {
    const MessagePtr message = encoded(holding(value));
    const char* key = nullptr;
    char type = 0;
    const char* content = nullptr;
    if (message == nullptr || sd_bus_message_enter_container(message.get(), 'a', "{sv}") <= 0 ||
        sd_bus_message_enter_container(message.get(), 'e', "sv") <= 0 ||
        sd_bus_message_read(message.get(), "s", &key) <= 0 ||
        sd_bus_message_peek_type(message.get(), &type, &content) <= 0) {
      return "unreadable";
    }
    return content;
  }

  Variant backAndForth(const Variant& value) {
    const MessagePtr message = encoded(holding(value));
    Variant body;
    EXPECT_TRUE(message != nullptr && decode(message.get(), body, reason_)) << reason_;
    return body["key"];
  }

  template <typename... Values>
  MessagePtr composed(const char* types, Values... values) {
    MessagePtr message = bus_.newMessage();
    EXPECT_GE(sd_bus_message_append(message.get(), types, values...), 0);
    return message;
  }

  // An a{sv} with one variant of this type and value.
  template <typename... Value>
  MessagePtr appended(const char* type, Value... value) {
    return composed("a{sv}", 1, "key", type, value...);
  }

  // The decoded form of appended().
  template <typename... Value>
  Variant receivedAs(const char* type, Value... value) {
    Variant body;
    EXPECT_TRUE(decoded(appended(type, value...).get(), body)) << reason_;
    return body["key"];
  }

  // A copy of the a{sv} with one more entry, a text of `length` bytes.
  MessagePtr withText(sd_bus_message* map, std::size_t length) {
    MessagePtr message = bus_.newMessage();
    EXPECT_GE(sd_bus_message_enter_container(map, 'a', "{sv}"), 0);
    sd_bus_message_open_container(message.get(), 'a', "{sv}");
    EXPECT_GE(sd_bus_message_copy(message.get(), map, 1), 0);
    sd_bus_message_append(message.get(), "{sv}", "text", "s", std::string(length, 'x').c_str());
    EXPECT_GE(sd_bus_message_close_container(message.get()), 0);
    EXPECT_GE(sd_bus_message_rewind(map, 1), 0);
    return message;
  }

  bool decoded(sd_bus_message* message, Variant& body) {
    const MessagePtr received = bus_.roundtrip(message);
    return received != nullptr && decode(received.get(), body, reason_);
  }

  // The body {"key": aaa...ai}, where the innermost of `levels` arrays is empty.
  MessagePtr nestedArrays(unsigned levels) {
    MessagePtr message = bus_.newMessage();
    const std::string type = std::string(levels, 'a') + "i";
    sd_bus_message_open_container(message.get(), 'a', "{sv}");
    sd_bus_message_open_container(message.get(), 'e', "sv");
    sd_bus_message_append(message.get(), "s", "key");
    sd_bus_message_open_container(message.get(), 'v', type.c_str());
    for (unsigned level = 0; level < levels; ++level) {
      sd_bus_message_open_container(message.get(), 'a', type.c_str() + level + 1);
    }
    for (unsigned level = 0; level < levels + 3; ++level) {
      EXPECT_GE(sd_bus_message_close_container(message.get()), 0);
    }
    return message;
  }

  // An array of `levels` nested structures around a number.
  MessagePtr arrayOfStructures(unsigned levels) {
    MessagePtr message = bus_.newMessage();
    const std::string type = std::string(levels, '(') + "i" + std::string(levels, ')');
    sd_bus_message_open_container(message.get(), 'a', type.c_str());
    for (unsigned level = 1; level <= levels; ++level) {
      const std::string fields = type.substr(level, type.size() - 2 * std::size_t{level});
      sd_bus_message_open_container(message.get(), 'r', fields.c_str());
    }
    sd_bus_message_append(message.get(), "i", 1);
    for (unsigned level = 0; level <= levels; ++level) {
      EXPECT_GE(sd_bus_message_close_container(message.get()), 0);
    }
    return message;
  }

  OfflineBus bus_;
  std::string reason_;
};

struct Pair {
  Variant value;
  const char* type;
};

std::vector<Pair> everyType() {
  Variant map;
  map["inner"] = std::int8_t{1};
  map[""] = Variant();
  Variant array;
  array.pushToArray("one");
  array.pushToArray(map);
  return {
      {Variant(), "g"},
      {true, "b"},
      {false, "b"},
      {std::numeric_limits<std::int8_t>::min(), "n"},
      {std::numeric_limits<std::int8_t>::max(), "n"},
      {std::numeric_limits<std::uint8_t>::max(), "y"},
      {std::numeric_limits<std::int32_t>::min(), "i"},
      {std::numeric_limits<std::int32_t>::max(), "i"},
      {std::numeric_limits<std::uint32_t>::max(), "u"},
      {std::numeric_limits<std::int64_t>::min(), "x"},
      {std::numeric_limits<std::int64_t>::max(), "x"},
      {std::numeric_limits<std::uint64_t>::max(), "t"},
      {std::numeric_limits<double>::denorm_min(), "d"},
      {-std::numeric_limits<double>::infinity(), "d"},
      {"", "s"},
      {"Türkamera \xf0\x9f\x93\xb7", "s"},
      {"\xff\xfe", "ay"},
      {std::string("a\0b", 3), "ay"},
      {"\xef\xbf\xbe", "ay"},
      {timeval{-1, 999999}, "(xx)"},
      {timeval{std::numeric_limits<std::int64_t>::max(), 0}, "(xx)"},
      {Variant::Map{}, "a{sv}"},
      {map, "a{sv}"},
      {Variant::Array{}, "av"},
      {array, "av"},
  };
}

TEST_F(WireTest, EveryVariantSurvivesRoundTrip) {
  for (const auto& [value, type] : everyType()) {
    SCOPED_TRACE(holding(value).toJson());
    EXPECT_EQ(wireType(value), type);
    const Variant back = backAndForth(value);
    EXPECT_EQ(back.type(), value.type());
    EXPECT_EQ(back, value);
  }
}

TEST_F(WireTest, NanSurvivesRoundTrip) {
  const Variant back = backAndForth(std::nan(""));
  EXPECT_EQ(back.type(), VariantType::Double);
  EXPECT_TRUE(std::isnan(back.toNumber<double>()));
}

TEST_F(WireTest, MeasuredSizeEqualsMarshalledSize) {
  auto values = everyType();
  for (std::size_t length = 0; length < 16; ++length) {
    values.push_back({"\xff" + std::string(length, 'x'), "ay"});
  }
  Variant everything;
  for (const auto& [value, type] : values) {
    everything[std::to_string(everything.Size())] = value;
    MessagePtr message = bus_.newMessage();
    std::size_t size = 0;
    ASSERT_TRUE(measure(everything, size, reason_));
    ASSERT_TRUE(encode(everything, message.get(), reason_));
    EXPECT_EQ(bus_.marshal(message.get()).size(), size) << type;
  }
}

TEST_F(WireTest, ShortIntegersTakeSmallestSufficientType) {
  EXPECT_EQ(receivedAs("n", -128), Variant(std::int8_t{-128}));
  EXPECT_EQ(receivedAs("n", 127), Variant(std::int8_t{127}));
  EXPECT_EQ(receivedAs("n", -129), Variant(std::int32_t{-129}));
  EXPECT_EQ(receivedAs("n", 128), Variant(std::int32_t{128}));
  EXPECT_EQ(receivedAs("q", 65535), Variant(std::uint32_t{65535}));
}

TEST_F(WireTest, PathsAndSignaturesAreStrings) {
  EXPECT_EQ(receivedAs("o", "/kova"), Variant("/kova"));
  EXPECT_EQ(receivedAs("g", "a{sv}"), Variant("a{sv}"));
}

TEST_F(WireTest, ByteArraysBecomeStringsAndOtherArraysStay) {
  EXPECT_EQ(receivedAs("ay", 3, 'a', 0, 0xff), Variant(std::string("a\0\xff", 3)));
  EXPECT_EQ(receivedAs("ay", 0), Variant(""));
  EXPECT_EQ(receivedAs("as", 2, "x", "y"), Variant(Variant::Array{"x", "y"}));
  EXPECT_EQ(receivedAs("ab", 2, 1, 0), Variant(Variant::Array{true, false}));
  EXPECT_EQ(receivedAs("aay", 1, 1, 'z'), Variant(Variant::Array{"z"}));
  EXPECT_EQ(receivedAs("ad", 0), Variant(Variant::Array{}));
}

TEST_F(WireTest, NestedVariantsAreUnwrapped) {
  EXPECT_EQ(receivedAs("v", "v", "u", 7), Variant(std::uint32_t{7}));
}

TEST_F(WireTest, StringKeyedDictionaryBecomesMapWithLastOfEqualKeys) {
  Variant body;
  const MessagePtr texts = composed("a{ss}", 3, "a", "1", "b", "2", "a", "3");
  ASSERT_TRUE(decoded(texts.get(), body)) << reason_;
  EXPECT_EQ(body, Variant(Variant::Map{{"a", "3"}, {"b", "2"}}));

  const MessagePtr maps = composed("a{sa{sv}}", 1, "a", 1, "b", "n", 5);
  ASSERT_TRUE(decoded(maps.get(), body)) << reason_;
  EXPECT_EQ(body["a"]["b"], Variant(std::int8_t{5}));
}

TEST_F(WireTest, BodiesOtherThanOneStringKeyedMapAreRefused) {
  const auto refused = [&](const char* types, auto... values) {
    Variant body;
    EXPECT_FALSE(decoded(composed(types, values...).get(), body)) << types;
    EXPECT_FALSE(reason_.empty());
  };
  refused("");
  refused("s", "text");
  refused("as", 1, "text");
  refused("v", "a{sv}", 0);
  refused("a{sv}a{sv}", 0, 0);
  refused("a{sv}s", 0, "text");
  refused("a{us}", 1, 1, "text");
  refused("a{uv}", 1, 1, "s", "text");
  refused("a{os}", 0);
  refused("(a{sv})", 0);
}

TEST_F(WireTest, UnsupportedTypesAreRefused) {
  const auto refused = [&](const char* type, auto... values) {
    Variant body;
    EXPECT_FALSE(decoded(appended(type, values...).get(), body)) << type;
  };
  refused("(s)", "text");
  refused("(xxx)", std::int64_t{}, std::int64_t{}, std::int64_t{});
  refused("(tt)", std::uint64_t{}, std::uint64_t{});
  refused("a{us}", 1, 1, "text");
  refused("a(is)", 1, 1, "text");
  refused("a{os}", 1, "/kova", "text");
}

// The outer array ends where the truncated body does, so that the incomplete value is inside it.
TEST_F(WireTest, IncompleteValuesOfAnyTypeAreRefused) {
  for (const auto& [value, type] : everyType()) {
    MessagePtr message = bus_.newMessage();
    ASSERT_TRUE(encode(holding(value), message.get(), reason_));
    const std::string whole = bus_.marshal(message.get());
    for (std::size_t size = 9; size < whole.size(); ++size) {
      std::string bytes = whole.substr(0, size);
      bytes[0] = static_cast<char>(size - 8);
      message = bus_.receive("a{sv}", bytes);
      Variant body;
      EXPECT_TRUE(message == nullptr || !decode(message.get(), body, reason_))
          << type << " of " << size;
    }
  }
}

TEST_F(WireTest, StructuresOfAnswersAreArrays) {
  Variant value;
  const auto answered = [&](const MessagePtr& message) {
    return decodeAnswer(bus_.roundtrip(message.get()).get(), value, reason_);
  };
  EXPECT_TRUE(answered(composed("(xx)", std::int64_t{1}, std::int64_t{2})));
  EXPECT_EQ(value, Variant(timeval{1, 2}));
  EXPECT_TRUE(answered(arrayOfStructures(31))) << reason_;
  EXPECT_FALSE(answered(arrayOfStructures(32)));
  EXPECT_EQ(reason_, "the body is nested too deeply");

  const auto rows = [&](std::size_t length) {
    return composed("a(ys)", 2, 1, "x", 2, std::string(length, 'x').c_str());
  };
  const std::size_t left = kMaxBodySize - bus_.marshal(rows(0).get()).size();
  EXPECT_TRUE(answered(rows(left))) << reason_;
  EXPECT_FALSE(answered(rows(left + 1)));
}

TEST_F(WireTest, MalformedBodiesAreRefused) {
  const std::string empty(8, '\0');
  Variant body;
  MessagePtr message = bus_.receive("a{ss}", empty);
  ASSERT_NE(message, nullptr);
  EXPECT_TRUE(decode(message.get(), body, reason_));

  const std::string invalidKey("\x0d\0\0\0\0\0\0\0\1\0\0\0\xff\0\0\0\0\0\0\0\0", 21);
  const std::string lengthBeyondTheEnd("\xff\xff\0\0\0\0\0\0", 8);
  const std::string truncatedLength("\0\0", 2);
  for (const std::string& bytes : {invalidKey, lengthBeyondTheEnd, truncatedLength}) {
    message = bus_.receive("a{ss}", bytes);
    EXPECT_TRUE(message == nullptr || !decode(message.get(), body, reason_)) << bytes.size();
  }

  // An array of three bytes, which is less than one value or one and a half.
  for (const std::string type : {"i", "n", "s", "ay", "(xx)"}) {
    std::string bytes("\0\0\0\0\0\0\0\0\1\0\0\0k\0\0\0\3\0\0\0", 20);
    bytes.append(type == "(xx)" ? 4 + 3 : 3, '\0');
    bytes[0] = static_cast<char>(bytes.size() - 8);
    message = bus_.receive("a{sa" + type + "}", bytes);
    EXPECT_TRUE(message == nullptr || !decode(message.get(), body, reason_)) << type;
  }
}

TEST_F(WireTest, ThirtyTwoLevelsAreReadAndMoreRefused) {
  Variant body;
  EXPECT_TRUE(decoded(nestedArrays(31).get(), body)) << reason_;
  EXPECT_FALSE(decoded(nestedArrays(32).get(), body));
  EXPECT_EQ(reason_, "the body is nested too deeply");
}

TEST_F(WireTest, OneMebibyteOfAnyTypeIsReadAndMoreRefused) {
  std::vector<MessagePtr> maps;
  for (const auto& [value, type] : everyType()) {
    maps.push_back(encoded(holding(value)));
  }
  const auto add = [&](const char* type, auto... value) {
    maps.push_back(bus_.roundtrip(appended(type, value...).get()));
  };
  add("q", 1);
  add("o", "/kova");
  add("g", "a{sv}");
  add("v", "v", "n", 1);
  add("as", 2, "x", "y");
  add("ad", 0);
  add("aan", 2, 0, 1, 5);
  add("a(xx)", 1, std::int64_t{1}, std::int64_t{2});
  add("a{ss}", 2, "a", "b", "c", "d");
  add("a{sn}", 2, "a", 1, "b", 2);
  add("a{say}", 1, "a", 1, 'z');
  for (const MessagePtr& map : maps) {
    const std::size_t left = kMaxBodySize - bus_.marshal(withText(map.get(), 0).get()).size();
    Variant body;
    EXPECT_TRUE(decoded(withText(map.get(), left).get(), body)) << reason_;
    EXPECT_FALSE(decoded(withText(map.get(), left + 1).get(), body)) << body.toJson().substr(0, 80);
    EXPECT_EQ(reason_, "the body is larger than 1 MiB");
  }
}

TEST_F(WireTest, OneMebibyteIsWrittenAndMoreRefused) {
  constexpr std::size_t kOverhead = 8 + (4 + 4) + 3 + 1 + (4 + 1);  // of {"key": text}
  std::size_t size = 0;
  EXPECT_TRUE(measure(holding(std::string(kMaxBodySize - kOverhead, 'x')), size, reason_));
  EXPECT_EQ(size, 1'048'576U);
  EXPECT_FALSE(measure(holding(std::string(kMaxBodySize - kOverhead + 1, 'x')), size, reason_));
  EXPECT_EQ(reason_, "the message is larger than 1 MiB");
}

TEST_F(WireTest, TenThousandKeysAreRead) {
  Variant body;
  for (int i = 0; i < 10'000; ++i) {
    body["key" + std::to_string(i)] = i;
  }
  const MessagePtr message = encoded(body);
  Variant back;
  ASSERT_TRUE(message != nullptr && decode(message.get(), back, reason_)) << reason_;
  EXPECT_EQ(back, body);
}

TEST_F(WireTest, ContentThatBusRejectsIsNotWritten) {
  EXPECT_NE(encoded(inMaps(21, "leaf")), nullptr) << reason_;
  EXPECT_EQ(encoded(inMaps(22, "leaf")), nullptr);
  EXPECT_EQ(reason_, "the message is nested too deeply");
  EXPECT_NE(encoded(inMaps(2, inArrays(29, "leaf"))), nullptr) << reason_;
  EXPECT_EQ(encoded(inMaps(2, inArrays(29, timeval{1, 2}))), nullptr);
  EXPECT_EQ(encoded(inMaps(2, inArrays(29, "\xff"))), nullptr);

  Variant invalidKey;
  invalidKey["\xff"] = 1;
  EXPECT_EQ(encoded(invalidKey), nullptr);
  EXPECT_EQ(reason_, "a key is not valid UTF-8");
  EXPECT_EQ(encoded(holding(std::string(kMaxBodySize, 'x'))), nullptr);
}

TEST_F(WireTest, NonMapIsSentAsEmptyMap) {
  const MessagePtr message = encoded("text");
  Variant body;
  ASSERT_TRUE(message != nullptr && decode(message.get(), body, reason_));
  EXPECT_EQ(body, Variant(Variant::Map{}));
}

}  // namespace
}  // namespace kova::ipc::wire
