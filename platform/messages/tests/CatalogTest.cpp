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
      << "list a new class here as in build() of Catalog.cpp";
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

/// Values of the wrong type for this field; none if it accepts any value, or if its default differs
/// from call to call.
std::vector<Variant> mistyped(const FieldDescription& field) {
  const std::string& type = field.type;
  if (type == "any" || type == "time" || field.fallback == "a fresh id") {
    return {};
  }
  std::vector<Variant> values;
  if (type != "container") {
    values.emplace_back(Variant::Array{"9"});
    values.emplace_back(Variant::Map{{"9", 9}});
  }
  if (type != "string") {
    values.emplace_back("9");
    values.emplace_back("true");
  }
  if (type != "bool") {
    values.emplace_back(true);
  }
  if (type.find("int") == std::string::npos) {
    values.emplace_back(9);
    values.emplace_back(0);
  }
  return values;
}

TEST(Catalog, MistypedFieldCountsAsMissing) {
  std::vector<MessageDescription> descriptions = catalog();
  const auto make = [](const Variant& content) -> std::unique_ptr<BaseMessage> {
    return std::make_unique<BaseRequestMessage>(content);
  };
  descriptions.push_back({"envelope", false, requestEnvelope(), make});
  std::ranges::copy(messageEnvelope(), std::back_inserter(descriptions.back().fields));
  for (const auto& description : descriptions) {
    const auto normalized = [&](const std::string& key, const Variant& value) {
      // The defaults of these two differ from call to call.
      Variant::Map content{{"id", std::uint64_t{1}}, {"timeStamp", timeval{2, 3}}};
      if (!key.empty()) {
        content[key] = value;
      }
      auto message = description.make(Variant(content));
      message->NormalizeFields();
      return static_cast<const Variant&>(*message);
    };
    for (const auto& field : description.fields) {
      for (const Variant& value : mistyped(field)) {
        EXPECT_EQ(normalized(field.key, value), normalized("", {}))
            << description.name << "." << field.key << ": " << value.ToString();
      }
    }
  }
}

}  // namespace
}  // namespace kova::ipc::messages
