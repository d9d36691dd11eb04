#include "../Command.h"
#include "../Transfer.h"
#include "kova/messages/Requests.h"

namespace kova::ctl {
namespace {

constexpr const char* kSilence =
    "the image has been flashed, or is still being, or the camera refused the request (an update\n"
    "is under way); the camera's log tells. Success is never announced";

}  // namespace

Action setUpFirmware(CLI::App& app) {
  auto uri = std::make_shared<std::string>();
  app.add_option("URI", *uri, "Where the camera fetches the image from, http: or https:")
      ->required()
      ->type_name("");
  auto transfer = addTransferOptions(app, 600000, kSilence);
  return [uri, transfer](const Options& options) {
    ipc::messages::UpdateFirmwareRequest request;
    request.uri(*uri);
    request.timeoutMs(transfer->timeoutMs);
    return runTransfer(options, request, *transfer, kSilence);
  };
}

}  // namespace kova::ctl
