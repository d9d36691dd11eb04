#include "Monitor.h"

#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include "../BusDiagnosis.h"
#include "../Client.h"
#include "../Command.h"
#include "../Output.h"
#include "../Terminal.h"
#include "../Text.h"
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
  const Variant* value = message.find(key);
  return value != nullptr ? value->toText() : none;
}

bool isDefault(const std::string& key, const Variant& value) {
  if (key == "responseExpected" || key == "isBroadcast") {
    return value == Variant(false);
  }
  if (key == "queueIfDestUnavailable") {
    return value == Variant(true);
  }
  return key == "transactionId" && value.is(variant::VariantClass::Number) &&
         value.toNumber<std::int64_t>() == -1;
}

bool shownElsewhere(const std::string& key) {
  return key == "functionName" || key == "from" || key == "to" || key == "timeStamp";
}

std::string fields(const Variant& message) {
  std::string text;
  for (const auto& [key, value] : message.elements()) {
    const bool nothing = value.isEmpty() && key == "payload";
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
    return body.Size() == 0 ? "accepted, empty answer" : "answer" + fields(body);
  }
  const std::string& function = textOf(body, BaseRequestMessage::functionNameField.key);
  return (function.empty() ? "(no function)" : printable(function)) + fields(body);
}

}  // namespace

std::string messageLine(const SeenMessage& seen, timeval when) {
  const bool broadcast = seen.kind == SeenMessage::Kind::Broadcast;
  return clockTime(when) + " " + party(seen.sender) + " -> " +
         (broadcast ? "*" : party(seen.destination)) + " " + content(seen, seen.body.masked());
}

Variant messageRecord(const SeenMessage& seen, timeval when) {
  Variant line;
  line["time"] = when;
  line["kind"] = kindName(seen.kind);
  line["sender"] = seen.sender;
  line["destination"] = seen.destination;
  if (seen.kind == SeenMessage::Kind::Error) {
    line["error"] = seen.error;
  }
  line["message"] = withTextIds(seen.body.masked());
  return line;
}

namespace {

ExitStatus presentMessage(const Options& options, const SeenMessage& seen) {
  timeval now{};
  gettimeofday(&now, nullptr);
  return presentEach(options, messageRecord(seen, now), messageLine(seen, now) + "\n");
}

ExitStatus monitor(const Options& options) {
  ipc::BusMonitor bus;
  std::string error;
  if (!bus.open(error)) {
    if (stopRequested()) {
      return stopStatus();
    }
    const bool joined = !error.starts_with("Unable to join");
    const std::string why = !joined                 ? explainJoin(options.host, "", error)
                            : !options.host.empty() ? "root is required; log in there as root"
                            : geteuid() != 0        ? "root is required; use sudo"
                                                    : error;
    return fail(ExitStatus::Unreachable, "cannot monitor the bus: " + why);
  }
  ExitStatus shown = ExitStatus::Ok;
  const auto print = [&](const ipc::SeenMessage& seen) {
    if (shown == ExitStatus::Ok) {
      shown = presentMessage(options, seen);
    }
  };
  while (shown == ExitStatus::Ok) {
    constexpr unsigned kSliceMs = 100;
    if (stopRequested()) {
      return stopStatus();
    }
    if (!bus.Service(kSliceMs, print) && !stopRequested()) {
      return fail(ExitStatus::Unreachable, "the connection to the bus was lost");
    }
  }
  return shown;
}

// Prints incoming messages. It never answers, so the bus library confirms each request to its
// sender.
class Printer : public ipc::BaseHandler {
 public:
  Printer(const Options& options, std::string endpoint)
      : BaseHandler("kovactl", nullptr), options_(options), endpoint_(std::move(endpoint)) {}

  bool HandleRequest(ipc::messages::BaseRequestMessage& request, bool&) override {
    using Kind = ipc::SeenMessage::Kind;
    const Kind kind = request.isBroadcast() ? Kind::Broadcast : Kind::Call;
    const ipc::SeenMessage seen{kind, request.from(), endpoint_, "", request};
    if (status_ == ExitStatus::Ok) {
      status_ = presentMessage(options_, seen);
    }
    return true;
  }

  ExitStatus status() const { return status_; }

 private:
  const Options& options_;
  std::string endpoint_;
  ExitStatus status_ = ExitStatus::Ok;
};

ExitStatus listen(const Options& options, const std::string& endpoint) {
  Printer printer(options, endpoint);
  Client client(options);
  if (const ExitStatus joined = client.join(endpoint, &printer); joined != ExitStatus::Ok) {
    return joined;
  }
  const ExitStatus served =
      client.serveUntil([&printer] { return printer.status() != ExitStatus::Ok; });
  if (stopRequested()) {
    return ExitStatus::Ok;
  }
  return served == ExitStatus::Ok ? printer.status() : served;
}

}  // namespace

Action setUpMonitor(CommandLine& line) {
  line.footer(
      "Prints one line per message: time, sender -> destination, function and fields; \"*\" is a "
      "broadcast. Passwords are masked. Requires root. Ctrl-C stops it (status 130).");
  return monitor;
}

Action setUpListen(CommandLine& line) {
  auto endpoint = std::make_shared<std::string>();
  line.argument("ENDPOINT", *endpoint, "Name of the endpoint, for example client.me");
  line.footer(
      "Prints one line per message, unbuffered; passwords are masked. Stops with status 0 on "
      "SIGINT "
      "and SIGTERM, with status 3 when the bus closes. Names outside \"client.\" require root.");
  return [endpoint](const Options& options) { return listen(options, *endpoint); };
}

}  // namespace kova::ctl
