#include "../Answer.h"
#include "../Assignments.h"
#include "../Command.h"
#include "../Table.h"

namespace kova::ctl {
namespace {

using ipc::messages::BaseRequestMessage;

constexpr const char* kFooter =
    "Fields:\n"
    "  key=text    the text as it stands\n"
    "  key:=JSON   a number, true, false, an array, an object ... (RFC 8259)\n"
    "\n"
    "An answer is expected unless --no-reply or responseExpected:=false is given.\n"
    "\n"
    "Examples:\n"
    "  kovactl call GetSystemStats cpu:=false battery:=false\n"
    "  kovactl call ChangeDeviceSettings name=Porch soundOnBoot:=true\n"
    "  kovactl call PlayState name=WIFI_SUCCESS volume:=40 --to kova_sounds_leds --no-reply\n";

struct Arguments {
  std::string function;
  std::vector<std::string> fields;
  std::string to = kServer;
  std::string from;
  bool noReply = false;
};

bool build(const Arguments& arguments, BaseRequestMessage& request, std::string& error) {
  request["functionName"] = arguments.function;
  request["to"] = arguments.to;
  if (!arguments.from.empty()) {
    request["from"] = arguments.from;
  }
  return parseAssignments(arguments.fields, request, error);
}

bool wantsAnswer(const Arguments& arguments, BaseRequestMessage& request) {
  const bool declined = request.Find("responseExpected") != nullptr && !request.responseExpected();
  return !arguments.noReply && !declined && !request.isBroadcast();
}

std::string describe(const Reply& reply) {
  if (!reply.answered) {
    return "Taken; nothing to say.\n";
  }
  const variant::Variant payload = payloadOf(reply);
  const bool nothing = payload.IsEmpty() || (payload.IsContainer() && payload.Size() == 0);
  if (nothing) {
    return reply.status == Exit::Ok ? "Done; no payload.\n" : "";
  }
  return table(flatten(payload));
}

Exit run(const Options& options, const Arguments& arguments) {
  BaseRequestMessage request;
  std::string error;
  if (!build(arguments, request, error)) {
    return fail(Exit::Usage, error);
  }
  Client client(options);
  if (const Exit joined = client.Join(); joined != Exit::Ok) {
    return joined;
  }
  if (!wantsAnswer(arguments, request)) {
    return client.Post(request);
  }
  const Reply reply = client.Request(request, options.answerTimeoutMs());
  if (reply.status != Exit::Ok && !reply.answered) {
    return reply.status;
  }
  const Exit shown = options.json ? showJson(reply) : show(describe(reply));
  return reply.status != Exit::Ok ? reply.status : shown;
}

}  // namespace

Action setUpCall(CommandLine& line) {
  auto arguments = std::make_shared<Arguments>();
  line.Argument("FUNCTION", arguments->function, "Function name, for example GetSystemStats");
  line.Arguments("FIELD", arguments->fields, "Fields of the request: key=text or key:=JSON");
  line.Option("--to", arguments->to, "ENDPOINT", "Endpoint to ask (kova_ctlserver)");
  line.Option("--from", arguments->from, "ENDPOINT", "Sender to name in the request");
  line.Flag("--no-reply", arguments->noReply, "Send it and do not wait for an answer");
  line.Footer(kFooter);
  return [arguments](const Options& options) { return run(options, *arguments); };
}

}  // namespace kova::ctl
