#include "RequestFields.h"

#include <strings.h>

#include <algorithm>

#include "Suggestion.h"
#include "kova/messages/Catalog.h"

namespace kova::ctl {
namespace {

bool parseValue(const std::string& key, std::string_view text, bool json, variant::Variant& value,
                std::string& error) {
  if (!json) {
    value = text;
    return true;
  }
  std::string fault;
  if (variant::Variant::FromJSON(text, value, fault) < 0) {
    const bool isWord = fault.find("invalid literal") != fault.npos;
    error =
        "\"" + key + "\": invalid JSON, " + fault + (isWord ? " (text needs double quotes)" : "");
    return false;
  }
  return true;
}

bool parseOne(const std::string& argument, variant::Variant& map, std::string& error) {
  const std::size_t sign = argument.find('=');
  const bool json = sign != std::string::npos && sign > 0 && argument[sign - 1] == ':';
  const std::size_t end = json ? sign - 1 : sign;
  if (sign == std::string::npos || end == 0) {
    error = "\"" + argument + "\" is neither key=text nor key:=JSON";
    return false;
  }
  const std::string key = argument.substr(0, end);
  if (map.find(key) != nullptr) {
    error = "\"" + key + "\" is given twice";
    return false;
  }
  variant::Variant value;
  if (!parseValue(key, std::string_view(argument).substr(sign + 1), json, value, error)) {
    return false;
  }
  map[key] = std::move(value);
  return true;
}

using ipc::messages::FieldDescription;
using variant::Variant;
using variant::VariantClass;

// Requests that add no fields have no class and are not in the catalogue.
const std::vector<std::string>& plainFunctions() {
  static const std::vector<std::string> names{"ExitService", "ResetDeviceSettings",
                                              "ResetToDefaults"};
  return names;
}

// The fields of a function without the envelope. soundOnBoot is not in the catalogue.
std::vector<FieldDescription> ownFields(const std::string& function) {
  for (const auto& message : ipc::messages::catalog()) {
    if (message.name == function) {
      std::vector<FieldDescription> fields = message.fields;
      if (function == "ChangeDeviceSettings") {
        fields.push_back({"soundOnBoot", "bool", "absent", {}, ""});
      }
      return fields;
    }
  }
  return {};
}

std::vector<FieldDescription> allFields(const std::string& function) {
  std::vector<FieldDescription> fields = ownFields(function);
  for (const auto& envelope :
       {ipc::messages::requestEnvelope(), ipc::messages::messageEnvelope()}) {
    fields.insert(fields.end(), envelope.begin(), envelope.end());
  }
  return fields;
}

bool isNumberType(const std::string& type) {
  return type.starts_with("int") || type.starts_with("uint");
}

bool fits(const FieldDescription& field, const Variant& value) {
  if (field.type == "bool") {
    return value.is(VariantClass::Boolean);
  }
  if (field.type == "string") {
    return value.is(VariantClass::String);
  }
  if (isNumberType(field.type)) {
    return value.is(VariantClass::Number);
  }
  return field.type != "container" || value.isContainer();
}

// An example of an assignment to a field.
std::string example(const FieldDescription& field) {
  if (field.type == "bool") {
    return field.key + ":=true";
  }
  if (isNumberType(field.type)) {
    return field.key + ":=1";
  }
  return field.key + (field.type == "string" ? "=text" : ":={\"key\":\"value\"}");
}

std::string doubtAbout(const FieldDescription& field, const Variant& value) {
  if (!fits(field, value)) {
    return "\"" + field.key + "\" must be of type " + field.type +
           " and will be treated as missing: write " + example(field);
  }
  const auto matches = [&value](const std::string& allowed) {
    return strcasecmp(allowed.c_str(), value.toText().c_str()) == 0;
  };
  if (field.allowed.empty() || std::ranges::any_of(field.allowed, matches)) {
    return "";
  }
  const std::string meant = closest(value.toText(), field.allowed);
  return "\"" + field.key + "\" cannot be \"" + value.toText() + "\" and will be treated as \"" +
         field.allowed.front() + "\"" + (meant.empty() ? "" : ": did you mean \"" + meant + "\"?");
}

std::string unknownField(const std::string& function, const std::string& key,
                         const std::vector<std::string>& known) {
  const std::string meant = closest(key, known);
  return function + " has no field \"" + key + "\": it is ignored" +
         (meant.empty() ? "" : "; did you mean \"" + meant + "\"?");
}

}  // namespace

bool parseAssignments(const std::vector<std::string>& arguments, variant::Variant& map,
                      std::string& error) {
  variant::Variant result = map;
  for (const std::string& argument : arguments) {
    if (!parseOne(argument, result, error)) {
      return false;
    }
  }
  map = std::move(result);
  return true;
}

std::vector<std::string> functionNames() {
  std::vector<std::string> names = plainFunctions();
  for (const auto& message : ipc::messages::catalog()) {
    if (message.name != ipc::messages::BaseResponseMessage::kName) {
      names.push_back(message.name);
    }
  }
  return names;
}

std::vector<std::string> fieldAssignments(const std::string& function) {
  std::vector<std::string> words;
  for (const FieldDescription& field : ownFields(function)) {
    words.push_back(field.key + (field.type == "string" ? "=" : ":="));
  }
  return words;
}

std::vector<std::string> fieldValues(const std::string& function, const std::string& field) {
  for (const FieldDescription& description : ownFields(function)) {
    if (description.key == field) {
      std::vector<std::string> values = description.type == "bool"
                                            ? std::vector<std::string>{"true", "false"}
                                            : description.allowed;
      // Words with a leading underscore mean "not given".
      std::erase_if(values, [](const std::string& value) { return value.starts_with('_'); });
      return values;
    }
  }
  return {};
}

std::vector<std::string> fieldWarnings(const Variant& request) {
  const Variant* name = request.find("functionName");
  const std::string function = name != nullptr ? name->toText() : "";
  const std::vector<std::string> functions = functionNames();
  std::vector<std::string> lines;
  if (std::ranges::find(functions, function) == functions.end()) {
    return lines;
  }
  const std::vector<FieldDescription> known = allFields(function);
  std::vector<std::string> keys;
  std::ranges::transform(known, std::back_inserter(keys), &FieldDescription::key);
  for (const auto& [key, value] : request.elements()) {
    const auto field = std::ranges::find(known, key, &FieldDescription::key);
    std::string line =
        field != known.end() ? doubtAbout(*field, value) : unknownField(function, key, keys);
    if (!line.empty()) {
      lines.push_back(std::move(line));
    }
  }
  return lines;
}

}  // namespace kova::ctl
