#include "Settings.h"

#include <strings.h>

#include <algorithm>
#include <array>

#include "../Client.h"
#include "../Command.h"
#include "../Output.h"
#include "../RequestFields.h"
#include "../Suggestion.h"
#include "Timezones.h"
#include "kova/messages/Requests.h"

namespace kova::ctl {
namespace {

using variant::Variant;

enum class Form { Text, SwitchNumber, Switch };

struct Setting {
  std::string_view typed;
  std::string_view field;
  std::string_view label;
  Form form;
  bool mayBeEmpty = false;
  std::string_view hint = "";  ///< added to the error message for an empty value
};

constexpr std::array<Setting, 5> kSettings{{
    {"name", "name", "Name", Form::Text, false,
     ", or \"kovactl reset-settings\" for the name of the model"},
    {"timezone", "timezone", "Time zone", Form::Text, false,
     ", such as GMT; \"kovactl timezones\" lists them"},
    {"region", "region", "Region", Form::Text, true},
    {"timelapse", "timelapseminutes", "Time-lapse", Form::SwitchNumber},
    {"sound-on-boot", "soundOnBoot", "Sound on boot", Form::Switch},
}};

std::vector<std::string> allSettings() {
  std::vector<std::string> names;
  names.reserve(kSettings.size());
  for (const Setting& setting : kSettings) {
    names.emplace_back(setting.typed);
  }
  return names;
}

// The syntax of a setting: "timelapse=on|off".
std::string form(const Setting& setting) {
  return std::string(setting.typed) + "=" + (setting.form == Form::Text ? "VALUE" : "on|off");
}

bool fillOne(const Setting& setting, const Variant& value, Variant& request, std::string& error) {
  const std::string name(setting.typed);
  if (!value.is(variant::VariantClass::String)) {
    error = "write " + form(setting);
    return false;
  }
  if (value.toText().empty() && !setting.mayBeEmpty) {
    error = name + " cannot be empty: write " + form(setting) + std::string(setting.hint);
    return false;
  }
  if (value.toText().find_first_of("\r\n") != std::string::npos) {
    error = name + " cannot contain a line break";
    return false;
  }
  if (setting.form == Form::Text) {
    request[setting.field] = value;
    return true;
  }
  bool on = false;
  if (!parseSwitch(value.toText(), on)) {
    error = name + " must be on or off: write " + form(setting);
    return false;
  }
  request[setting.field] = setting.form == Form::Switch ? Variant(on) : Variant(on ? 1 : 0);
  return true;
}

// The probable reason why the camera refused these settings.
std::string refusalOf(const Variant& request) {
  for (const char* key : {"timezone", "region"}) {
    const Variant* zone = request.find(key);
    const std::string name = zone != nullptr ? zone->toText() : "";
    // Only a region with a slash also sets the time zone.
    const bool isMeant =
        !name.empty() && (key == kSettings[1].field || name.find('/') != name.npos);
    std::string doubt = isMeant ? doubtAboutZone(name) : "";
    if (!doubt.empty()) {
      return doubt;
    }
  }
  return "a value was rejected; see the camera's log";
}

// Models without time-lapse ignore the setting silently.
ExitStatus judgeTimelapse(const Variant& request, const Reply& reply) {
  const std::string_view field = kSettings[3].field;
  return reply.status == ExitStatus::Ok && request.find(field) != nullptr &&
                 payloadOf(reply).find(field) == nullptr
             ? fail(ExitStatus::Refused, "this model has no time-lapse: that setting was ignored")
             : reply.status;
}

std::string describe(const Setting& setting, const Variant& value) {
  if (setting.form == Form::Text) {
    return cell(value);
  }
  const bool on = value.is(variant::VariantClass::Boolean) ? value.toBool()
                                                           : value.toNumber<std::int64_t>() != 0;
  return on ? "on" : "off";
}

}  // namespace

bool parseSwitch(const std::string& text, bool& value) {
  for (const char* word : {"on", "yes", "true", "1"}) {
    if (strcasecmp(text.c_str(), word) == 0) {
      value = true;
      return true;
    }
  }
  for (const char* word : {"off", "no", "false", "0"}) {
    if (strcasecmp(text.c_str(), word) == 0) {
      value = false;
      return true;
    }
  }
  return false;
}

bool fillSettings(const Variant& given, Variant& request, std::string& error) {
  for (const auto& [name, value] : given.elements()) {
    const auto setting = std::ranges::find(kSettings, name, &Setting::typed);
    if (setting == kSettings.end()) {
      error = notFound("setting", name, allSettings());
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
    if (const Variant* value = payload.find(setting.field); value != nullptr) {
      rows.push_back({std::string(setting.label), describe(setting, *value)});
    }
  }
  return rows;
}

namespace {

ExitStatus askSettings(const Options& options, ipc::messages::BaseRequestMessage& request) {
  Client client(options);
  if (const ExitStatus joined = client.join(); joined != ExitStatus::Ok) {
    return joined;
  }
  const Variant asked = request;
  const Reply reply = client.request(request, options.answerTimeoutMs(), refusalOf(asked));
  if (!reply.answered) {
    return reply.status;
  }
  const Variant payload = payloadOf(reply);
  // The payload of a refusal has only the settings handled before the failure, so it is not shown
  // as text.
  const std::string text = reply.status == ExitStatus::Ok ? table(settingsRows(payload)) : "";
  const ExitStatus shown = present(options, payload, text);
  const ExitStatus judged = judgeTimelapse(asked, reply);
  return judged != ExitStatus::Ok ? judged : shown;
}

constexpr const char* kSettingsFooter =
    "Settings:\n"
    "  name=TEXT             the camera's name\n"
    "  timezone=ZONE         the time zone, such as Europe/Paris; see \"kovactl timezones\"\n"
    "  region=TEXT           the region of use, such as US; a value of the form Area/City also "
    "sets "
    "the time zone\n"
    "  timelapse=on|off      only on models with time-lapse\n"
    "  sound-on-boot=on|off  whether to play a sound at boot\n"
    "\n"
    "A crash or power cut discards changes that were not saved with \"kovactl save\". \"kovactl "
    "reboot\" saves them first.";

std::string explain(const std::string& argument) {
  return "\"" + argument + "\" is not a setting: write SETTING=VALUE, such as name=Porch";
}

ExitStatus changeSettings(const Options& options, const std::vector<std::string>& arguments) {
  for (const std::string& argument : arguments) {
    if (argument.find('=') == argument.npos || argument.front() == '=') {
      return fail(ExitStatus::Usage, explain(argument));
    }
  }
  variant::Variant given = variant::Variant::Map{};
  std::string error;
  ipc::messages::ChangeDeviceSettings request;
  if (!parseAssignments(arguments, given, error) || !fillSettings(given, request, error)) {
    return fail(ExitStatus::Usage, error);
  }
  return askSettings(options, request);
}

}  // namespace

Action setUpSettings(CommandLine& line) {
  auto arguments = std::make_shared<std::vector<std::string>>();
  line.arguments("SETTING", *arguments, "Settings to change; none shows all settings");
  line.footer(kSettingsFooter);
  return [arguments](const Options& options) { return changeSettings(options, *arguments); };
}

Action setUpResetSettings(CommandLine& line) {
  line.footer("Sets the model's default name and the time zone GMT, then prints the settings.");
  return [](const Options& options) {
    ipc::messages::BaseRequestMessage request;
    request.functionName("ResetDeviceSettings");
    return askSettings(options, request);
  };
}

}  // namespace kova::ctl
