#include "../Answer.h"
#include "../Command.h"
#include "kova/messages/Requests.h"

namespace kova::ctl {
namespace {

template <typename Message>
Exit control(const Options& options, const std::string& service, const char* done) {
  Message request;
  request.service(service);
  request.from("kovactl");  // the camera logs who asked
  return askServer(options, request, service + " " + done + "\n",
                   "is there a service \"" + service + "\"?");
}

}  // namespace

Action setUpService(CommandLine& line) {
  auto service = std::make_shared<std::string>();
  CommandLine start = line.Subcommand("start", "Start a service, now and at every boot");
  CommandLine stop = line.Subcommand("stop", "Stop a service, now and at every boot");
  for (CommandLine* sub : {&start, &stop}) {
    sub->Argument("NAME", *service, "Name of the service");
  }
  return [service, start](const Options& options) {
    using namespace ipc::messages;
    return start.Given() ? control<StartService>(options, *service, "is started.")
                         : control<StopService>(options, *service, "is stopped.");
  };
}

}  // namespace kova::ctl
