#include "kova/messages/Catalog.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace kova::ipc::messages {
namespace {

using variant::Variant;

TEST(Catalog, HoldsEveryClassOnce) {
  std::vector<std::string> names;
  for (const auto& message : catalog()) {
    names.push_back(message.name);
  }
  EXPECT_EQ(names, (std::vector<std::string>{
                       "GetSystemStats", "Reboot", "ChangeDeviceSettings", "UpdateFirmwareRequest",
                       "GetRequest", "PutRequest", "SaveToFlash", "ChangeUsernamePassword",
                       "EnableUsernamePassword", "DisableUsernamePassword", "StartService",
                       "StopService", "EventTransferRequestStatus", "EventUpdateFirmwareFailure",
                       "PlayState", "__response__"}))
      << "a new class stands in this list as in build() of Catalog.cpp";
}

TEST(Catalog, DescribesFieldsThatNormalisationGives) {
  for (const auto& description : catalog()) {
    auto message = description.make(Variant());
    message->NormalizeFields();
    for (const auto& field : description.fields) {
      EXPECT_NE(message->find(field.key), nullptr) << description.name << "." << field.key;
    }
  }
}

TEST(Catalog, EveryClassForcesItsFunctionName) {
  for (const auto& description : catalog()) {
    SCOPED_TRACE(description.name);
    std::string lower = description.name;
    std::ranges::transform(lower, lower.begin(), [](unsigned char c) { return std::tolower(c); });
    for (const Variant& sent : {Variant("Other"), Variant("Reboot"), Variant(lower), Variant(""),
                                Variant(3), Variant()}) {
      auto message = description.make(Variant(Variant::Map{{"functionName", sent}}));
      message->NormalizeFields();
      EXPECT_EQ(*message->find("functionName"), Variant(description.name));
    }
  }
}

FieldDescription fieldOf(const std::string& message, const std::string& key) {
  for (const auto& description : catalog()) {
    for (const auto& field : description.fields) {
      if (description.name == message && field.key == key) {
        return field;
      }
    }
  }
  ADD_FAILURE() << "there is no " << message << "." << key;
  return {};
}

TEST(Catalog, GivesTypeDefaultRangeAndAllowedValues) {
  const auto timelapse = fieldOf("ChangeDeviceSettings", "timelapseminutes");
  EXPECT_EQ(timelapse.type, "int32");
  EXPECT_EQ(timelapse.fallback, "-1");
  EXPECT_EQ(timelapse.range, "-1..1");
  EXPECT_EQ(fieldOf("GetRequest", "timeoutMs").range, "");
  EXPECT_EQ(fieldOf("PutRequest", "what").allowed,
            (std::vector<std::string>{"logo", "sound", "_UNINITIALIZED_"}));
}

TEST(Catalog, DescribesBothEnvelopesInOrder) {
  EXPECT_EQ(requestEnvelope()[1].key, "transactionId");
  EXPECT_EQ(messageEnvelope().front().key, "id");
  EXPECT_EQ(messageEnvelope().back().key, "queueIfDestUnavailable");
}

}  // namespace
}  // namespace kova::ipc::messages
