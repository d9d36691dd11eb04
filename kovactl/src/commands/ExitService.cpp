#include "../Answer.h"
#include "../Command.h"

namespace kova::ctl {

Action setUpExitService(CommandLine& line) {
  line.Footer(
      "A pending save or factory reset is done before it ends. Where a supervisor watches it, it\n"
      "comes back.\n");
  return [](const Options& options) {
    ipc::messages::BaseRequestMessage request;
    request.functionName("ExitService");
    return askServer(options, request, "The control server ends.\n");
  };
}

}  // namespace kova::ctl
