#include "kova/messages/Requests.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "Normalized.h"

namespace kova::ipc::messages {
namespace {

using variant::Variant;
using Map = Variant::Map;

TEST(Requests, EmptyRequestReceivesDefaultsOfItsClass) {
  expectDefaults<GetSystemStats>({{"responseExpected", true},
                                  {"memory", true},
                                  {"cpu", true},
                                  {"cpuInfo", true},
                                  {"loadavg", true},
                                  {"network", true},
                                  {"wifi", true},
                                  {"uptime", true},
                                  {"battery", true}});
  expectDefaults<Reboot>({{"delayMs", 0U}, {"responseExpected", false}});
  expectDefaults<ChangeDeviceSettings>({{"responseExpected", true},
                                        {"name", kNotGiven},
                                        {"timezone", kNotGiven},
                                        {"region", kNotGiven},
                                        {"timelapseminutes", -1},
                                        {"persist", false}});
  expectDefaults<UpdateFirmwareRequest>(
      {{"responseExpected", false}, {"timeoutMs", 0U}, {"uri", kNotGiven}});
  expectDefaults<GetRequest>({{"responseExpected", false},
                              {"disableEvents", false},
                              {"what", kNotGiven},
                              {"filename", kNotGiven},
                              {"uri", kNotGiven},
                              {"formFields", Variant()},
                              {"timeoutMs", 0U}});
  expectDefaults<PutRequest>({{"responseExpected", false},
                              {"what", kNotGiven},
                              {"uri", kNotGiven},
                              {"timeoutMs", 0U},
                              {"hash", kNotGiven}});
  expectDefaults<SaveToFlash>({{"responseExpected", false}, {"sync", false}});
  expectDefaults<ChangeUsernamePassword>({{"responseExpected", true},
                                          {"username", kNotGiven},
                                          {"passwordOld", kNotGiven},
                                          {"passwordNew", kNotGiven}});
  expectDefaults<EnableUsernamePassword>({{"responseExpected", true}});
  expectDefaults<DisableUsernamePassword>({{"responseExpected", true}});
  expectDefaults<StartService>({{"responseExpected", false}, {"service", ""}});
  expectDefaults<StopService>({{"responseExpected", false}, {"service", ""}});
}

TEST(Requests, GivenFlagIsKept) {
  EXPECT_FALSE(normalized<GetSystemStats>({{"wifi", false}}).wifi());
  EXPECT_FALSE(normalized<GetSystemStats>({{"responseExpected", false}}).responseExpected());
  EXPECT_TRUE(normalized<SaveToFlash>({{"sync", true}}).sync());
}

TEST(Requests, NumbersAreStoredInDeclaredWidth) {
  EXPECT_EQ(normalized<Reboot>({{"delayMs", std::uint64_t{7}}})["delayMs"], Variant(7U));
  EXPECT_EQ(normalized<GetRequest>({{"timeoutMs", std::int8_t{7}}})["timeoutMs"], Variant(7U));
  EXPECT_EQ(normalized<PutRequest>({{"timeoutMs", -1}}).timeoutMs(),
            std::numeric_limits<std::uint32_t>::max());
  EXPECT_EQ(normalized<ChangeDeviceSettings>({{"timelapseminutes", 1.0}})["timelapseminutes"],
            Variant(1));
}

TEST(Requests, TimelapseMinutesAreClampedToMinusOneToOne) {
  const std::pair<int, int> cases[] = {{15, 1}, {1, 1}, {0, 0}, {-1, -1}, {-7, -1}};
  for (const auto& [sent, stored] : cases) {
    EXPECT_EQ(normalized<ChangeDeviceSettings>({{"timelapseminutes", sent}}).timelapseminutes(),
              stored)
        << sent;
  }
}

TEST(Requests, TimelapseMinutesBeyondTheirWidthAreClamped) {
  const std::pair<Variant, int> cases[] = {{3'000'000'000U, 1},
                                           {std::int64_t{1} << 32U, 1},
                                           {1 - (std::int64_t{1} << 32U), -1},
                                           {std::numeric_limits<std::uint64_t>::max(), 1},
                                           {-1e300, -1},
                                           {1e300, 1},
                                           {std::nan(""), 0}};
  for (const auto& [sent, stored] : cases) {
    EXPECT_EQ(normalized<ChangeDeviceSettings>({{"timelapseminutes", sent}}).timelapseminutes(),
              stored)
        << sent.toNumber<double>();
  }
}

TEST(Requests, AllowedWordIsCanonicalisedInAnyCase) {
  EXPECT_EQ(normalized<GetRequest>({{"what", "SupportInfo"}}).what(), "supportInfo");
  EXPECT_EQ(normalized<GetRequest>({{"what", "EVENTHEATMAP"}})["what"], Variant("eventHeatmap"));
  EXPECT_EQ(normalized<PutRequest>({{"what", "LOGO"}}).what(), "logo");
  EXPECT_EQ(normalized<PutRequest>({{"what", "Sound"}}).what(), "sound");
}

TEST(Requests, UnknownWordBecomesFirst) {
  EXPECT_EQ(normalized<GetRequest>({{"what", "picture"}}).what(), "snapshot");
  EXPECT_EQ(normalized<GetRequest>({{"what", "eventSnap"}}).what(), "snapshot")
      << "a prefix is a different word";
  EXPECT_EQ(normalized<PutRequest>({{"what", "soundx"}}).what(), "logo");
  EXPECT_EQ(normalized<PutRequest>({{"what", ""}}).what(), "logo");
  EXPECT_EQ(normalized<PutRequest>({{"what", std::string("sou\0d", 5)}}).what(), "logo");
}

TEST(Requests, FormFieldsMayBeAnyContainer) {
  const Map fields{{"a", "b"}, {"n", 1}};
  EXPECT_EQ(normalized<GetRequest>({{"formFields", fields}}).formFields(), Variant(fields));
  EXPECT_EQ(normalized<GetRequest>({{"formFields", Variant::Array{1}}}).formFields(),
            Variant(Variant::Array{1}));
}

TEST(Requests, AccessorRepairsItsFieldWithoutNormalisation) {
  StopService message(Variant(Map{{"service", 12}}));
  EXPECT_EQ(message.service(), "");
  EXPECT_EQ(message["service"], Variant(""));
  EXPECT_EQ(message.Size(), 1U);
}

TEST(Requests, WordSetterCanonicalises) {
  GetRequest get;
  get.what("EVENTSNAPSHOT");
  EXPECT_EQ(get["what"], Variant("eventSnapshot"));
  get.what("other");
  EXPECT_EQ(get["what"], Variant("snapshot"));
  PutRequest put;
  put.what("SOUND");
  EXPECT_EQ(put["what"], Variant("sound"));
  put.functionName("anything");
  EXPECT_EQ(put["functionName"], Variant("PutRequest"));
  EXPECT_EQ(put.functionName(), "PutRequest");
}

}  // namespace
}  // namespace kova::ipc::messages
