#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "kova/messages/BaseMessage.h"

/// The schemas as data, for documentation, completion and tests that iterate over all classes.
namespace kova::ipc::messages {

struct FieldDescription {
  std::string key;
  std::string type;      ///< "bool", "uint32", "string", "time", "container", "any", ...
  std::string fallback;  ///< the default, in readable form
  std::vector<std::string> allowed;  ///< for an enumerated field, in table order
  std::string range;                 ///< "MIN..MAX" for a number with a range, else ""
};

struct MessageDescription {
  std::string name;
  bool event;  ///< sent rather than accepted by the control server
  std::vector<FieldDescription> fields;
  /// Creates a message of this class with the given content.
  std::unique_ptr<BaseMessage> (*make)(const variant::Variant& content);
};

/// All message classes with own fields: the requests, then the events, then the response.
const std::vector<MessageDescription>& catalog();

/// The fields of the request envelope and of the message envelope, in the order of normalisation.
std::vector<FieldDescription> requestEnvelope();
std::vector<FieldDescription> messageEnvelope();

}  // namespace kova::ipc::messages
