#include "DeviceSettings.h"

#include <algorithm>
#include <array>

#include "Answer.h"
#include "Assignments.h"
#include "Text.h"

namespace kova::ctl {
namespace {

using variant::Variant;

enum class Form { Text, SwitchNumber, Switch };

struct Setting {
  std::string_view typed;
  std::string_view field;
  std::string_view label;
  Form form;
};

constexpr std::array<Setting, 5> kSettings{{
    {"name", "name", "Name", Form::Text},
    {"timezone", "timezone", "Time zone", Form::Text},
    {"region", "region", "Region", Form::Text},
    {"timelapse", "timelapseminutes", "Time-lapse", Form::SwitchNumber},
    {"sound-on-boot", "soundOnBoot", "Sound on boot", Form::Switch},
}};

std::string allSettings() {
  std::string names;
  for (const Setting& setting : kSettings) {
    names += (names.empty() ? "" : ", ") + std::string(setting.typed);
  }
  return names;
}

bool fillOne(const Setting& setting, const Variant& value, Variant& request, std::string& error) {
  const std::string name(setting.typed);
  if (!value.Is(variant::VariantClass::String)) {
    error = "write " + name + "=VALUE";
    return false;
  }
  if (setting.form == Form::Text) {
    request[setting.field] = value;
    return true;
  }
  bool on = false;
  if (!parseSwitch(value.ToText(), on)) {
    error = name + " must be on or off";
    return false;
  }
  request[setting.field] = setting.form == Form::Switch ? Variant(on) : Variant(on ? 1 : 0);
  return true;
}

std::string describe(const Setting& setting, const Variant& value) {
  if (setting.form == Form::Text) {
    return cell(value);
  }
  const bool on = value.Is(variant::VariantClass::Boolean) ? value.ToBool()
                                                           : value.ToNumber<std::int64_t>() != 0;
  return on ? "on" : "off";
}

}  // namespace

bool fillSettings(const Variant& given, Variant& request, std::string& error) {
  for (const auto& [name, value] : given.Elements()) {
    const auto setting = std::ranges::find(kSettings, name, &Setting::typed);
    if (setting == kSettings.end()) {
      error = "there is no setting \"" + name + "\", only " + allSettings();
      return false;
    }
    if (!fillOne(*setting, value, request, error)) {
      return false;
    }
  }
  return true;
}

std::vector<Row> settingsRows(const Variant& payload) {
  std::vector<Row> rows;
  for (const Setting& setting : kSettings) {
    if (const Variant* value = payload.Find(setting.field); value != nullptr) {
      rows.push_back({std::string(setting.label), describe(setting, *value)});
    }
  }
  return rows;
}

Exit askSettings(const Options& options, ipc::messages::BaseRequestMessage& request) {
  Client client(options);
  if (const Exit joined = client.Join(); joined != Exit::Ok) {
    return joined;
  }
  const Reply reply = client.Request(request, options.answerTimeoutMs(),
                                     "a value was not accepted; its log tells which");
  if (!reply.answered) {
    return reply.status;
  }
  const Exit shown = options.json ? showJson(reply) : show(table(settingsRows(payloadOf(reply))));
  return reply.status != Exit::Ok ? reply.status : shown;
}

}  // namespace kova::ctl
