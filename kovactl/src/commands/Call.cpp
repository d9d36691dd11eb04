#include "../Client.h"
#include "../Command.h"
#include "../Output.h"
#include "../RequestFields.h"
#include "../Suggestion.h"
#include "../Text.h"

namespace kova::ctl {
namespace {

using ipc::messages::BaseRequestMessage;

constexpr const char* kCallFooter =
    "Fields:\n"
    "  key=text    a string\n"
    "  key:=JSON   any JSON value: a number, true, false, an array, an object\n"
    "\n"
    "Waits for an answer unless --no-reply or responseExpected:=false is given. Unknown fields and "
    "values of the wrong type cause a warning; the request is sent nevertheless.\n"
    "\n"
    "Examples:\n"
    "  kovactl call GetSystemStats cpu:=false battery:=false\n"
    "  kovactl call ChangeDeviceSettings name=Porch soundOnBoot:=true\n"
    "  kovactl call PlayState name=WIFI_SUCCESS --to kova_sounds_leds --no-reply\n";

struct CallArguments {
  std::string function;
  std::vector<std::string> fields;
  std::string to = kServer;
  std::string from;
  bool noReply = false;
};

bool build(const CallArguments& arguments, BaseRequestMessage& request, std::string& error) {
  request["functionName"] = arguments.function;
  request["to"] = arguments.to;
  if (!arguments.from.empty()) {
    request["from"] = arguments.from;
  }
  return parseAssignments(arguments.fields, request, error);
}

bool wantsAnswer(const CallArguments& arguments, BaseRequestMessage& request) {
  const bool declined = request.find("responseExpected") != nullptr && !request.responseExpected();
  return !arguments.noReply && !declined && !request.isBroadcast();
}

std::string describe(const Reply& reply) {
  if (!reply.answered) {
    return "Delivered; the answer is empty and does not show the outcome (\"kovactl transfers\" "
           "shows that of a transfer).\n";
  }
  const variant::Variant payload = payloadOf(reply);
  const bool nothing = payload.isEmpty() || (payload.isContainer() && payload.Size() == 0);
  if (nothing) {
    return reply.status == ExitStatus::Ok ? "Done; no payload.\n" : "";
  }
  return table(flatten(payload));
}

// A hint for an unknown function.
std::string suggestFunction(const std::string& function) {
  const std::string meant = closest(function, functionNames());
  return meant.empty() || meant == function ? "" : "did you mean " + meant + "?";
}

ExitStatus run(const Options& options, const CallArguments& arguments) {
  BaseRequestMessage request;
  std::string error;
  if (!build(arguments, request, error)) {
    return fail(ExitStatus::Usage, error);
  }
  for (const std::string& warning : fieldWarnings(request)) {
    fail(ExitStatus::Ok, "warning: " + warning);
  }
  Client client(options);
  if (const ExitStatus joined = client.join(); joined != ExitStatus::Ok) {
    return joined;
  }
  if (!wantsAnswer(arguments, request)) {
    return client.post(request);
  }
  const Reply reply =
      client.request(request, options.answerTimeoutMs(), suggestFunction(arguments.function));
  if (reply.status != ExitStatus::Ok && !reply.answered) {
    return reply.status;
  }
  const variant::Variant answer = reply.answered ? withTextIds(reply.message) : variant::Variant();
  const ExitStatus shown = present(options, answer, describe(reply));
  return reply.status != ExitStatus::Ok ? reply.status : shown;
}

}  // namespace

Action setUpCall(CommandLine& line) {
  auto arguments = std::make_shared<CallArguments>();
  line.argument("FUNCTION", arguments->function, "Function name, for example GetSystemStats");
  line.arguments("FIELD", arguments->fields, "Fields of the request: key=text or key:=JSON");
  line.option("--to", arguments->to, "ENDPOINT", "Destination of the request (kova_ctlserver)");
  line.option("--from", arguments->from, "ENDPOINT", "Sender of the request");
  line.flag("--no-reply", arguments->noReply, "Do not wait for an answer");
  line.footer(kCallFooter);
  return [arguments](const Options& options) { return run(options, *arguments); };
}

}  // namespace kova::ctl
