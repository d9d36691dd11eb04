#include "Suggestion.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "RequestFields.h"
#include "commands/Timezones.h"
#include "kova/messages/Requests.h"

namespace kova::ctl {
namespace {

using variant::Variant;

TEST(Suggestion, FindsSimilarWord) {
  const std::vector<std::string> words{"stats", "settings", "reset-settings", "monitor"};
  EXPECT_EQ(closest("stat", words), "stats");
  EXPECT_EQ(closest("STATS", words), "stats");
  EXPECT_EQ(closest("tsats", words), "stats") << "neighbours swapped";
  EXPECT_EQ(closest("setings", words), "settings");
  EXPECT_EQ(closest("reset", words), "reset-settings") << "the beginning";
  EXPECT_EQ(closest("frobnicate", words), "");
  EXPECT_EQ(closest("", words), "");
  EXPECT_EQ(closest(std::string(100000, 'x'), words), "");
}

TEST(Suggestion, ClosestCandidateWins) {
  EXPECT_EQ(closest("name", {"names", "game", "Name"}), "Name");
  EXPECT_EQ(closest("ab", {"abx", "xb", "ab"}), "ab");
}

TEST(Suggestion, FewCandidatesAreListed) {
  EXPECT_EQ(notFound("fruit", "aple", {"apple", "pear"}),
            "\"aple\" is not a fruit: did you mean \"apple\"?");
  EXPECT_EQ(notFound("fruit", "stone", {"apple", "pear", "fig"}),
            "\"stone\" is not a fruit: choose apple, pear or fig");
  EXPECT_EQ(notFound("fruit", "stone", std::vector<std::string>(11, "fig")),
            "\"stone\" is not a fruit");
  EXPECT_EQ(notFound("option", "stone", {}), "\"stone\" is not an option");
  EXPECT_EQ(notFound("fruit", "stone", {}), "\"stone\" is not a fruit");
}

std::vector<std::string> doubtsOf(const Variant::Map& fields) {
  return fieldWarnings(Variant(fields));
}

TEST(RequestFields, ValidFieldsRaiseNoDoubt) {
  EXPECT_TRUE(doubtsOf({{"functionName", "ChangeDeviceSettings"},
                        {"name", "Porch"},
                        {"soundOnBoot", true},
                        {"timelapseminutes", 1},
                        {"id", 7},
                        {"from", "client.me"},
                        {"to", "kova_ctlserver"},
                        {"responseExpected", false}})
                  .empty());
  EXPECT_TRUE(doubtsOf({{"functionName", "GetRequest"},
                        {"what", "SUPPORTINFO"},
                        {"formFields", Variant::Map{{"a", "b"}}}})
                  .empty());
  EXPECT_TRUE(doubtsOf({{"functionName", "NotOurs"}, {"anything", 1}}).empty());
  EXPECT_TRUE(fieldWarnings(Variant(5)).empty());
}

TEST(RequestFields, UnknownFieldIsDoubted) {
  EXPECT_EQ(doubtsOf({{"functionName", "ExitService"}, {"force", true}}),
            (std::vector<std::string>{"ExitService has no field \"force\": it is ignored"}));
}

TEST(RequestFields, ValueOfWrongTypeIsDoubted) {
  EXPECT_EQ(
      doubtsOf({{"functionName", "SaveToFlash"}, {"sync", "true"}}),
      (std::vector<std::string>{"\"sync\" must be of type bool and will be treated as missing: "
                                "write sync:=true"}));
  EXPECT_EQ(doubtsOf({{"functionName", "Reboot"}, {"delayMs", "5"}}).size(), 1U);
  EXPECT_EQ(doubtsOf({{"functionName", "StartService"}, {"service", 5}}).size(), 1U);
  EXPECT_EQ(doubtsOf({{"functionName", "GetRequest"}, {"formFields", "a"}}).size(), 1U);
}

TEST(RequestFields, ForbiddenValueIsDoubted) {
  EXPECT_EQ(
      doubtsOf({{"functionName", "PutRequest"}, {"what", "soud"}}),
      (std::vector<std::string>{
          "\"what\" cannot be \"soud\" and will be treated as \"logo\": did you mean \"sound\"?"}));
}

TEST(Timezones, InstalledZonesHaveFullNames) {
  const auto zones = installedZones();
  if (zones.empty()) {
    GTEST_SKIP() << "no zones are installed here";
  }
  EXPECT_TRUE(std::ranges::binary_search(zones, std::string("Europe/Paris")));
  EXPECT_TRUE(std::ranges::binary_search(zones, std::string("America/Argentina/Salta")));
  for (const char* noZone : {"zone.tab", "tzdata.zi", "localtime", "posix/UTC", "right/UTC"}) {
    EXPECT_FALSE(std::ranges::binary_search(zones, std::string(noZone))) << noZone;
  }
  EXPECT_EQ(doubtAboutZone("Europe/Paris"), "");
  EXPECT_EQ(doubtAboutZone("europe/paris"),
            "\"europe/paris\" is not a time zone: did you mean \"Europe/Paris\"? (\"kovactl "
            "timezones\" lists them)");
}

}  // namespace
}  // namespace kova::ctl
