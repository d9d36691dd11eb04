#include "RequestFields.h"

#include <gtest/gtest.h>

namespace kova::ctl {
namespace {

using variant::Variant;

Variant parsed(const std::vector<std::string>& arguments) {
  Variant map = Variant::Map{};
  std::string error;
  EXPECT_TRUE(parseAssignments(arguments, map, error)) << error;
  return map;
}

std::string complaint(const std::vector<std::string>& arguments) {
  Variant map = Variant::Map{};
  std::string error;
  EXPECT_FALSE(parseAssignments(arguments, map, error));
  EXPECT_EQ(map.Size(), 0U) << "a failure leaves the map as it was";
  return error;
}

TEST(Assignments, EqualSignTakesText) {
  const Variant map = parsed({"name=Porch=1", "empty=", "number=12", "json={\"a\":1}"});
  EXPECT_EQ(*map.find("name"), Variant("Porch=1"));
  EXPECT_EQ(*map.find("empty"), Variant(""));
  EXPECT_EQ(*map.find("number"), Variant("12"));
  EXPECT_EQ(*map.find("json"), Variant("{\"a\":1}"));
}

TEST(Assignments, ColonEqualSignTakesJson) {
  const Variant map =
      parsed({"flag:=true", "count:=-3", "big:=18446744073709551615", "text:=\"a:=b\"",
              "list:=[1, \"two\"]", "form:={\"a\":{\"b\":null}}", "half:=0.5"});
  EXPECT_EQ(*map.find("flag"), Variant(true));
  EXPECT_EQ(*map.find("count"), Variant(std::int32_t{-3}));
  EXPECT_EQ(*map.find("big"), Variant(std::uint64_t{18446744073709551615U}));
  EXPECT_EQ(*map.find("text"), Variant("a:=b"));
  EXPECT_EQ(map.find("list")->items().at(1), Variant("two"));
  EXPECT_TRUE(map.find("form")->find("a")->find("b")->isEmpty());
  EXPECT_EQ(*map.find("half"), Variant(0.5));
}

TEST(Assignments, OtherColonsBelongToKeyOrText) {
  const Variant map = parsed({"a:b=c", "uri=http://x/?q:=1"});
  EXPECT_EQ(*map.find("a:b"), Variant("c"));
  EXPECT_EQ(*map.find("uri"), Variant("http://x/?q:=1"));
}

TEST(Assignments, ArgumentWithoutKeyOrSignIsRefused) {
  EXPECT_EQ(complaint({"porch"}), "\"porch\" is neither key=text nor key:=JSON");
  EXPECT_EQ(complaint({"=x"}), "\"=x\" is neither key=text nor key:=JSON");
  EXPECT_EQ(complaint({":=1"}), "\":=1\" is neither key=text nor key:=JSON");
}

TEST(Assignments, DuplicateKeyIsRefused) {
  EXPECT_EQ(complaint({"a=1", "b=2", "a:=3"}), "\"a\" is given twice");
}

TEST(Assignments, InvalidJsonIsReportedWithPosition) {
  EXPECT_EQ(complaint({"x:=[1,]"}),
            "\"x\": invalid JSON, position 4: unexpected ']'; expected '[', '{', or a literal");
  EXPECT_EQ(complaint({"x:="}),
            "\"x\": invalid JSON, position 1: unexpected end of input; expected '[', '{', or a "
            "literal");
  EXPECT_EQ(complaint({"x:=porch"}),
            "\"x\": invalid JSON, position 1: invalid literal (text needs double quotes)");
  EXPECT_EQ(complaint({"x:=" + std::string(1024 * 1024 + 1, ' ')}),
            "\"x\": invalid JSON, longer than 1048576 bytes");
}

}  // namespace
}  // namespace kova::ctl
