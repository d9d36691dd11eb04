#include "MessageLine.h"

#include <time.h>

#include "Text.h"
#include "kova/messages/BaseMessage.h"
#include "kova/utils/Strings.h"

namespace kova::ctl {
namespace {

using ipc::SeenMessage;
using ipc::messages::BaseRequestMessage;
using variant::Variant;

std::string clockTime(timeval when) {
  tm local{};
  localtime_r(&when.tv_sec, &local);
  return utils::format("%02d:%02d:%02d.%03d", local.tm_hour, local.tm_min, local.tm_sec,
                       static_cast<int>(when.tv_usec / 1000));
}

const std::string& textOf(const Variant& message, std::string_view key) {
  static const std::string none;
  const Variant* value = message.Find(key);
  return value != nullptr ? value->ToText() : none;
}

bool isDefault(const std::string& key, const Variant& value) {
  if (key == "responseExpected" || key == "isBroadcast") {
    return value == Variant(false);
  }
  if (key == "queueIfDestUnavailable") {
    return value == Variant(true);
  }
  return key == "transactionId" && value.Is(variant::VariantClass::Number) &&
         value.ToNumber<std::int64_t>() == -1;
}

bool shownElsewhere(const std::string& key) {
  return key == "functionName" || key == "from" || key == "to" || key == "timeStamp";
}

std::string fields(const Variant& message) {
  std::string text;
  for (const auto& [key, value] : message.Elements()) {
    const bool nothing = value.IsEmpty() && key == "payload";
    if (!shownElsewhere(key) && !isDefault(key, value) && !nothing) {
      text += " " + printable(key) + "=" + json(value);
    }
  }
  return text;
}

std::string party(const std::string& endpoint) {
  return endpoint.empty() ? "?" : printable(endpoint);
}

const char* kindName(SeenMessage::Kind kind) {
  switch (kind) {
    case SeenMessage::Kind::Call:
      return "call";
    case SeenMessage::Kind::Answer:
      return "answer";
    case SeenMessage::Kind::Error:
      return "error";
    case SeenMessage::Kind::Broadcast:
      return "broadcast";
  }
  return "?";
}

std::string content(const SeenMessage& seen, const Variant& body) {
  if (seen.kind == SeenMessage::Kind::Error) {
    return "error " + printable(seen.error);
  }
  if (seen.kind == SeenMessage::Kind::Answer) {
    return body.Size() == 0 ? "taken, nothing to say" : "answer" + fields(body);
  }
  const std::string& function = textOf(body, BaseRequestMessage::functionNameField.key);
  return (function.empty() ? "(no function)" : printable(function)) + fields(body);
}

}  // namespace

std::string messageLine(const SeenMessage& seen, timeval when) {
  const bool broadcast = seen.kind == SeenMessage::Kind::Broadcast;
  return clockTime(when) + " " + party(seen.sender) + " -> " +
         (broadcast ? "*" : party(seen.destination)) + " " + content(seen, seen.body.Masked());
}

std::string messageJson(const SeenMessage& seen, timeval when) {
  Variant line;
  line["time"] = when;
  line["kind"] = kindName(seen.kind);
  line["sender"] = seen.sender;
  line["destination"] = seen.destination;
  if (seen.kind == SeenMessage::Kind::Error) {
    line["error"] = seen.error;
  }
  line["message"] = seen.body.Masked();
  return json(line);
}

}  // namespace kova::ctl
