#include <algorithm>
#include <array>

#include "../Assignments.h"
#include "../Command.h"
#include "../Transfer.h"
#include "kova/messages/Requests.h"

namespace kova::ctl {
namespace {

constexpr const char* kSilence =
    "the upload has succeeded, or the camera refused the request (this URI is in use, such a file\n"
    "is being uploaded already, or the name is not allowed), or a second support archive was\n"
    "asked for meanwhile; the receiver, or the camera's log, tells which";

struct Kind {
  std::string_view typed;
  std::string_view what;
  bool needsName;
};

constexpr std::array<Kind, 4> kKinds{{
    {"snapshot", "snapshot", false},
    {"support", "supportInfo", false},
    {"event-snapshot", "eventSnapshot", true},
    {"event-heatmap", "eventHeatmap", true},
}};

struct Arguments {
  std::string what;
  std::string uri;
  std::string filename;
  std::vector<std::string> fields;
};

bool build(const Arguments& arguments, ipc::messages::GetRequest& request, std::string& error) {
  const auto kind = std::ranges::find(kKinds, arguments.what, &Kind::typed);
  if (kind->needsName == arguments.filename.empty()) {
    error = arguments.what + (kind->needsName ? " needs --filename" : " takes no --filename");
    return false;
  }
  variant::Variant form = variant::Variant::Map{};
  if (!parseAssignments(arguments.fields, form, error)) {
    return false;
  }
  request.what(std::string(kind->what));
  request.uri(arguments.uri);
  if (kind->needsName) {
    request.filename(arguments.filename);
  }
  if (form.Size() > 0) {
    request.formFields(form);
  }
  return true;
}

Exit run(const Options& options, const Arguments& arguments, const TransferOptions& transfer) {
  ipc::messages::GetRequest request;
  std::string error;
  if (!build(arguments, request, error)) {
    return fail(Exit::Usage, error);
  }
  request.timeoutMs(transfer.timeoutMs);
  request.disableEvents(!transfer.wait);
  return runTransfer(options, request, transfer, kSilence);
}

}  // namespace

Action setUpGet(CommandLine& line) {
  auto arguments = std::make_shared<Arguments>();
  line.Argument("WHAT", arguments->what, "snapshot, support, event-snapshot or event-heatmap",
                {"snapshot", "support", "event-snapshot", "event-heatmap"});
  line.Argument("URI", arguments->uri, "Where the camera uploads it to, http: or https:");
  line.Option("--filename", arguments->filename, "NAME",
              "Name of the event's file, such as motionsnap_12.jpg or heatmap_12.png");
  line.Option("--field", arguments->fields, "KEY=VALUE",
              "Field to add to the upload's form; repeatable");
  auto transfer = addTransferOptions(line, 90000, kSilence);
  return
      [arguments, transfer](const Options& options) { return run(options, *arguments, *transfer); };
}

}  // namespace kova::ctl
