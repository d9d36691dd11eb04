#include "../Command.h"
#include "../Transfer.h"
#include "kova/messages/Requests.h"

namespace kova::ctl {
namespace {

constexpr const char* kSilence =
    "the image has been flashed, or is still being, or the camera refused the request (an update\n"
    "is under way); the camera's log tells. Success is never announced";

}  // namespace

Action setUpFirmware(CommandLine& line) {
  auto uri = std::make_shared<std::string>();
  line.Argument("URI", *uri, "Where the camera fetches the image from, http: or https:");
  auto transfer = addTransferOptions(line, 600000, kSilence);
  return [uri, transfer](const Options& options) {
    ipc::messages::UpdateFirmwareRequest request;
    request.uri(*uri);
    request.timeoutMs(transfer->timeoutMs);
    return runTransfer(options, request, *transfer, kSilence);
  };
}

}  // namespace kova::ctl
