#pragma once

#include <string>
#include <vector>

#include "kova/variant/Variant.h"

/// Fields of requests as typed on the command line, and their descriptions in the message
/// catalogue.
namespace kova::ctl {

/// Parses arguments of the forms "key=text" and "key:=JSON" into a map.
/// @param map   receives the values; unchanged on failure. A key that it already has counts as a
///              duplicate.
/// @param error receives, on failure, one line that names the argument and what is wrong with it
bool parseAssignments(const std::vector<std::string>& arguments, variant::Variant& map,
                      std::string& error);

/// The names of all requests and events.
std::vector<std::string> functionNames();

/// The start of an assignment to each field of a function: "name=" or "sync:=".
std::vector<std::string> fieldAssignments(const std::string& function);

/// The values that a field of a function can take: the allowed ones, or "true" and "false". Empty
/// if the field accepts any value.
std::vector<std::string> fieldValues(const std::string& function, const std::string& field);

/// Describes what the receiver of a request would silently ignore or replace: unknown fields,
/// values of the wrong type, values that are not allowed. One line each; empty for functions
/// outside the catalogue.
std::vector<std::string> fieldWarnings(const variant::Variant& request);

}  // namespace kova::ctl
