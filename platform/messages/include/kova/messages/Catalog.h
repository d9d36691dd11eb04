#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "kova/messages/BaseMessage.h"

/// The schemas as data: for documentation, completion, and tests that go through every class.
namespace kova::ipc::messages {

struct FieldDescription {
  std::string key;
  std::string type;      ///< "bool", "uint32", "string", "time", "container", "any", ...
  std::string fallback;  ///< the default, as a person would write it
  std::vector<std::string> allowed;  ///< for an enumerated field, in table order
  std::string range;                 ///< "MIN..MAX" for a number held to a range, else ""
};

struct MessageDescription {
  std::string name;
  bool event;  ///< sent by the control server rather than accepted by it
  std::vector<FieldDescription> fields;
  /// A message of this class with the given content.
  std::unique_ptr<BaseMessage> (*make)(const variant::Variant& content);
};

/// Every message class with fields of its own: the requests, then the events, then the response.
const std::vector<MessageDescription>& catalog();

/// The fields of the request envelope, and of the envelope of all messages, in normalisation order.
std::vector<FieldDescription> requestEnvelope();
std::vector<FieldDescription> messageEnvelope();

}  // namespace kova::ipc::messages
