#include "../Answer.h"
#include "../Command.h"
#include "kova/messages/Requests.h"

namespace kova::ctl {
namespace {

// The camera never answers this request: whoever waits can only learn that it was not taken, and
// that shows at once.
constexpr std::uint32_t kRefusalMs = 500;

Exit reboot(const Options& options, std::uint32_t delayMs) {
  Client client(options);
  if (const Exit joined = client.Join(); joined != Exit::Ok) {
    return joined;
  }
  ipc::messages::Reboot request;
  request.delayMs(delayMs);
  const Reply reply = client.RequestUnanswered(request, kRefusalMs);
  if (reply.status != Exit::Ok) {
    return reply.status;
  }
  return options.json ? showJson(reply) : show("The camera reboots.\n");
}

}  // namespace

Action setUpReboot(CommandLine& line) {
  auto delayMs = std::make_shared<std::uint32_t>(0);
  line.Option("--delay", *delayMs, "MS", "Reboot after this many milliseconds (0)");
  line.Footer(
      "The configuration is saved to flash first. The camera does not answer this request, and\n"
      "serves no other until it is up again.\n");
  return [delayMs](const Options& options) { return reboot(options, *delayMs); };
}

}  // namespace kova::ctl
