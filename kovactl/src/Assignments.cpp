#include "Assignments.h"

#include <strings.h>

#include "JsonFault.h"

namespace kova::ctl {
namespace {

constexpr std::size_t kMostJson = variant::Variant::kMaxJsonSize;

std::string explain(const std::string& key, std::string_view json) {
  if (json.size() > kMostJson) {
    return "\"" + key + "\": JSON of more than " + std::to_string(kMostJson) + " bytes";
  }
  const auto fault = findJsonFault(json);
  const std::string place =
      fault ? " at position " + std::to_string(fault->offset + 1) + ": " + fault->reason : "";
  return "\"" + key + "\": not JSON" + place;
}

bool parseValue(const std::string& key, std::string_view text, bool json, variant::Variant& value,
                std::string& error) {
  if (!json) {
    value = text;
    return true;
  }
  if (variant::Variant::FromJSON(text, value) < 0) {
    error = explain(key, text);
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
  if (map.Find(key) != nullptr) {
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

}  // namespace kova::ctl
