#include <algorithm>
#include <array>

#include "../Command.h"
#include "../RequestFields.h"
#include "../Transfer.h"
#include "kova/messages/Requests.h"

namespace kova::ctl {
namespace {

constexpr const char* kSilence =
    "the upload succeeded, was refused (the URI is in use, the same kind of file is already being "
    "uploaded, or the name is not allowed), or was replaced by another support request; see the "
    "receiver or the camera's log";

struct FileKind {
  std::string_view typed;
  std::string_view what;
  std::string_view prefix;  ///< of file names; "" for a kind without file names
  std::string_view suffix;

  bool needsName() const { return !prefix.empty(); }
};

constexpr std::array<FileKind, 4> kKinds{{
    {"snapshot", "snapshot", "", ""},
    {"support", "supportInfo", "", ""},
    {"event-snapshot", "eventSnapshot", "motionsnap_", ".jpg"},
    {"event-heatmap", "eventHeatmap", "heatmap_", ".png"},
}};

struct GetArguments {
  std::string what;
  std::string uri;
  std::string filename;
  std::vector<std::string> fields;
};

// Accepts what the camera accepts, including names without digits.
bool isNameOf(const FileKind& kind, std::string_view name) {
  if (!name.starts_with(kind.prefix)) {
    return false;
  }
  const std::size_t end = name.find_first_not_of("0123456789", kind.prefix.size());
  return end != name.npos && name.substr(end) == kind.suffix;
}

std::string nameFault(const FileKind& kind, const std::string& name) {
  const std::string what(kind.typed);
  const std::string form = std::string(kind.prefix) + "12" + std::string(kind.suffix);
  if (!kind.needsName()) {
    return name.empty() ? "" : what + " takes no --filename; only event files do";
  }
  if (name.empty()) {
    return what + " needs --filename with a name such as " + form;
  }
  return isNameOf(kind, name)
             ? ""
             : "\"" + name + "\" is not the name of an " + what + ": write one such as " + form;
}

// The camera accepts only strings; any other value blocks the file until the daemon restarts.
bool areTexts(const std::vector<std::string>& fields) {
  return std::ranges::all_of(fields, [](const std::string& field) {
    const std::size_t sign = field.find('=');
    return sign != field.npos && sign > 0 && field[sign - 1] != ':';
  });
}

bool build(const GetArguments& arguments, ipc::messages::GetRequest& request, std::string& error) {
  const auto kind = std::ranges::find(kKinds, arguments.what, &FileKind::typed);
  error = nameFault(*kind, arguments.filename);
  if (!error.empty()) {
    return false;
  }
  if (!areTexts(arguments.fields)) {
    error = "--field: write KEY=VALUE, such as camera=porch: the value is always text";
    return false;
  }
  variant::Variant form = variant::Variant::Map{};
  if (!parseAssignments(arguments.fields, form, error)) {
    return false;
  }
  request.what(std::string(kind->what));
  request.uri(arguments.uri);
  if (kind->needsName()) {
    request.filename(arguments.filename);
  }
  if (form.Size() > 0) {
    request.formFields(form);
  }
  return true;
}

ExitStatus run(const Options& options, const GetArguments& arguments,
               const TransferOptions& transfer) {
  ipc::messages::GetRequest request;
  std::string error;
  if (!build(arguments, request, error)) {
    return fail(ExitStatus::Usage, error);
  }
  request.timeoutMs(transfer.timeoutMs);
  request.disableEvents(!transfer.wait);
  return runTransfer(options, request, transfer, kSilence);
}

}  // namespace

Action setUpGet(CommandLine& line) {
  auto arguments = std::make_shared<GetArguments>();
  line.argument("WHAT", arguments->what,
                "snapshot, support (an archive for the support team), event-snapshot, or "
                "event-heatmap (a picture of the motion in an event)",
                {"snapshot", "support", "event-snapshot", "event-heatmap"});
  line.argument("URI", arguments->uri, "Destination of the upload, http: or https:");
  line.option("--filename", arguments->filename, "NAME",
              "File name of the event, such as motionsnap_12.jpg or heatmap_12.png");
  line.option("--field", arguments->fields, "KEY=VALUE",
              "Additional form field of the upload; repeatable");
  auto transfer = addTransferOptions(line, 90000, kSilence);
  return
      [arguments, transfer](const Options& options) { return run(options, *arguments, *transfer); };
}

}  // namespace kova::ctl
