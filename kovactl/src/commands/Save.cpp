#include "../Answer.h"
#include "../Command.h"
#include "kova/messages/Requests.h"

namespace kova::ctl {

Action setUpSave(CommandLine& line) {
  auto sync = std::make_shared<bool>(false);
  line.Flag("--sync", *sync, "Write at once and wait until it is done");
  line.Footer(
      "Without --sync the camera writes 5 s after the last such request, and tells no failure.\n");
  return [sync](const Options& options) {
    constexpr std::uint32_t kWriteMs = 25000;  // flash is slow
    Options patient = options;
    patient.timeoutMs = options.timeoutMs.value_or(*sync ? kWriteMs : Options::kAnswerTimeoutMs);
    ipc::messages::SaveToFlash request;
    request.sync(*sync);
    return askServer(patient, request,
                     *sync ? "Saved to flash.\n" : "The camera saves to flash in 5 s.\n",
                     "writing to flash failed");
  };
}

}  // namespace kova::ctl
