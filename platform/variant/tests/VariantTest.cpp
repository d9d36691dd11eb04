#include "kova/variant/Variant.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <limits>

namespace kova::variant {
namespace {

TEST(Variant, EachTypeBelongsOnlyToItsClass) {
  constexpr VariantClass kNone{};
  const struct {
    const char* name;
    Variant value;
    VariantType type;
    VariantClass itsClass;
  } samples[] = {
      {"empty", Variant(), VariantType::Empty, kNone},
      {"boolean", Variant(true), VariantType::Boolean, VariantClass::Boolean},
      {"int8", Variant(std::int8_t{-1}), VariantType::Int8, VariantClass::Number},
      {"uint8", Variant(std::uint8_t{1}), VariantType::UInt8, VariantClass::Number},
      {"int32", Variant(-1), VariantType::Int32, VariantClass::Number},
      {"uint32", Variant(1U), VariantType::UInt32, VariantClass::Number},
      {"int64", Variant(std::int64_t{-1}), VariantType::Int64, VariantClass::Number},
      {"uint64", Variant(std::uint64_t{1}), VariantType::UInt64, VariantClass::Number},
      {"double", Variant(0.5), VariantType::Double, VariantClass::Number},
      {"string", Variant("text"), VariantType::String, VariantClass::String},
      {"time", Variant(timeval{1, 2}), VariantType::Time, VariantClass::Time},
      {"map", Variant(Variant::Map{}), VariantType::Map, VariantClass::Container},
      {"array", Variant(Variant::Array{}), VariantType::Array, VariantClass::Container},
  };
  for (const auto& [name, value, type, itsClass] : samples) {
    EXPECT_EQ(value.type(), type) << name;
    for (const VariantClass mask :
         {VariantClass::Container, VariantClass::Time, VariantClass::String, VariantClass::Number,
          VariantClass::Boolean}) {
      EXPECT_EQ(value.is(mask), mask == itsClass)
          << name << " against mask " << std::hex << static_cast<unsigned>(mask);
    }
  }
}

TEST(Variant, ContainerCodesAreFixed) {
  EXPECT_EQ(static_cast<unsigned>(VariantType::Map), 0x1010U);
  EXPECT_EQ(static_cast<unsigned>(VariantType::Array), 0x1011U);
}

TEST(Variant, ReadingAsOtherTypeGivesZeroOfThatType) {
  const Variant text("12");
  EXPECT_FALSE(text.toBool());
  EXPECT_EQ(text.toNumber<int>(), 0);
  EXPECT_EQ(text.toTime().tv_sec, 0);
  EXPECT_EQ(Variant(12).toText(), "");
  EXPECT_EQ(Variant(true).toNumber<int>(), 0);
  EXPECT_FALSE(Variant(1).toBool());
  EXPECT_EQ(text.Size(), 0U);
}

TEST(Variant, IntegersAreReducedToWidthRead) {
  EXPECT_EQ(Variant(std::int64_t{-1}).toNumber<std::uint32_t>(), 4294967295U);
  EXPECT_EQ(Variant(std::uint64_t{0x1'0000'0005}).toNumber<std::int32_t>(), 5);
  EXPECT_EQ(Variant(std::numeric_limits<std::uint64_t>::max()).toNumber<std::int64_t>(), -1);
  EXPECT_EQ(Variant(300).toNumber<std::int8_t>(), 44);
}

TEST(Variant, DoublesAreTruncatedAndClamped) {
  EXPECT_EQ(Variant(-1.9).toNumber<std::int32_t>(), -1);
  EXPECT_EQ(Variant(1e300).toNumber<std::int32_t>(), std::numeric_limits<std::int32_t>::max());
  EXPECT_EQ(Variant(-1e300).toNumber<std::int64_t>(), std::numeric_limits<std::int64_t>::min());
  EXPECT_EQ(Variant(-1.0).toNumber<std::uint32_t>(), 0U);
  EXPECT_EQ(Variant(18446744073709551616.0).toNumber<std::uint64_t>(),
            std::numeric_limits<std::uint64_t>::max());
  EXPECT_EQ(Variant(9223372036854775808.0).toNumber<std::int64_t>(),
            std::numeric_limits<std::int64_t>::max());
  EXPECT_EQ(Variant(std::nan("")).toNumber<std::uint32_t>(), 0U);
  EXPECT_EQ(Variant(std::numeric_limits<double>::infinity()).toNumber<std::uint8_t>(), 255);
}

TEST(Variant, MissingKeyIsAddedOnlyByWriting) {
  Variant map;
  EXPECT_EQ(map.find("a"), nullptr);
  map["a"] = 1;
  EXPECT_TRUE(map.isMap());
  EXPECT_EQ(map.Size(), 1U);
  EXPECT_EQ(map.find("A"), nullptr);
  EXPECT_TRUE(map["b"].isEmpty());
  EXPECT_EQ(map.Size(), 2U);
}

TEST(Variant, IndexedScalarBecomesMap) {
  Variant value("text");
  value["key"] = 1;
  EXPECT_EQ(value.elements().at("key"), Variant(1));
  EXPECT_EQ(value.Size(), 1U);
}

TEST(Variant, ArrayKeepsElementsWhenConverted) {
  Variant value(Variant::Array{"a", "b"});
  value["x"] = "c";
  EXPECT_EQ(value, Variant(Variant::Map{{"0", "a"}, {"1", "b"}, {"x", "c"}}));
  value.IsArray(true);
  EXPECT_EQ(value, Variant(Variant::Array{"a", "b", "c"}));
}

TEST(Variant, ResetAndFreeLeaveItEmpty) {
  Variant value(Variant::Map{{"a", 1}});
  value.Reset();
  EXPECT_TRUE(value.isEmpty());
  value = 5;
  value.Free();
  EXPECT_TRUE(value.isEmpty());
}

TEST(Variant, GetKeyChainFollowsMapsAndChecksType) {
  const Variant value(Variant::Map{{"a", Variant::Map{{"b", true}}}});
  const Variant* found = value.GetKeyChain(VariantClass::Boolean, {"a", "b"});
  ASSERT_NE(found, nullptr);
  EXPECT_TRUE(found->toBool());
  EXPECT_EQ(value.GetKeyChain(VariantClass::String, {"a", "b"}), nullptr);
  EXPECT_EQ(value.GetKeyChain(VariantClass::Boolean, {"a", "c"}), nullptr);
  EXPECT_EQ(value.GetKeyChain(VariantClass::Boolean, {"a", "b", "c"}), nullptr);
  EXPECT_EQ(Variant("text").GetKeyChain(VariantClass::Boolean, {"a"}), nullptr);
}

TEST(Variant, CopiesAreDeep) {
  Variant original(Variant::Map{{"a", Variant::Array{1}}});
  Variant copy = original;
  copy["a"].pushToArray(2);
  EXPECT_EQ(original["a"].Size(), 1U);
  EXPECT_FALSE(copy == original);
}

TEST(Variant, ToStringMasksPasswords) {
  const Variant request(Variant::Map{
      {"passwordOld", "secret1"},
      {"nested", Variant::Array{Variant::Map{{"users.1.PASSWORD", "secret2"}}}},
      {"username", "admin"},
  });
  const std::string text = request.ToString();
  EXPECT_EQ(text.find("secret"), std::string::npos) << text;
  EXPECT_NE(text.find("admin"), std::string::npos) << text;
  EXPECT_NE(request.toJson().find("secret1"), std::string::npos);
}

long peakKiB() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return usage.ru_maxrss;
}

TEST(VariantMasked, DepthCostsNoMemory) {
  constexpr std::size_t kItems = 200'000;
  Variant nested(Variant::Array(kItems, Variant(std::int32_t{1})));
  for (int depth = 0; depth < 30; ++depth) {
    nested =
        depth % 2 == 0 ? Variant(Variant::Map{{"a", nested}}) : Variant(Variant::Array{nested});
  }
  constexpr long kCopyKiB = kItems * sizeof(Variant) / 1024;
  EXPECT_EXIT(
      {
        const long before = peakKiB();
        const bool isSame = nested.masked() == nested;
        const long grown = peakKiB() - before;
        std::fprintf(stderr, "%ld KiB for %ld KiB\n", grown, kCopyKiB);
        _exit(isSame && grown < 4 * kCopyKiB ? 0 : 1);
      },
      testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace kova::variant
