#include "../Answer.h"
#include "../Command.h"
#include "kova/messages/Requests.h"

namespace kova::ctl {
namespace {

template <typename Message>
Exit control(const Options& options, const std::string& service, const char* done) {
  Message request;
  request.service(service);
  return askServer(options, request, service + " " + done + "\n",
                   "is there a service \"" + service + "\"?");
}

}  // namespace

Action setUpService(CLI::App& app) {
  auto service = std::make_shared<std::string>();
  CLI::App* start = app.add_subcommand("start", "Start a service, now and at every boot");
  CLI::App* stop = app.add_subcommand("stop", "Stop a service, now and at every boot");
  for (CLI::App* sub : {start, stop}) {
    sub->add_option("NAME", *service, "Name of the service")->required()->type_name("");
  }
  app.require_subcommand(1);
  return [service, start](const Options& options) {
    using namespace ipc::messages;
    return start->parsed() ? control<StartService>(options, *service, "is started.")
                           : control<StopService>(options, *service, "is stopped.");
  };
}

}  // namespace kova::ctl
