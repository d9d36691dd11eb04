#include <algorithm>
#include <string_view>
#include <type_traits>

#include "../BusDiagnosis.h"
#include "../Client.h"
#include "../Command.h"
#include "../InstalledServices.h"
#include "../Output.h"
#include "../Remote.h"
#include "../Suggestion.h"
#include "../Text.h"
#include "kova/messages/Requests.h"

namespace kova::ctl {
namespace {

ExitStatus showList(const Options& options) {
  warnOfLocal("service list", "the services");
  variant::Variant all = variant::Variant::Array{};
  std::vector<Row> rows;
  for (const InstalledService& service : servicesWithStates()) {
    const auto& [name, state, atBoot] = service;
    all.pushToArray(variant::Variant::Map{{"name", name}, {"state", state}, {"atBoot", atBoot}});
    rows.push_back({printable(name), state + (atBoot ? ", started at boot" : "")});
  }
  if (rows.empty()) {
    return fail(ExitStatus::Local,
                "no services found in /etc/sv, nor systemd: run kovactl on the camera");
  }
  return present(options, all, table(rows));
}

std::string refusalOf(const std::string& service) {
  const std::vector<std::string> known = installedServices();
  const auto has = [&known](const std::string& name) {
    return std::ranges::find(known, name) != known.end();
  };
  // Suggest local names only if this machine is a camera.
  return has(kServer) && !has(service)
             ? notFound("service", service, known)
             : "check the name \"" + service +
                   "\" with \"kovactl service list\" on the camera, and its log";
}

template <typename Message>
ExitStatus control(const Options& options, const std::string& service, const char* done) {
  constexpr bool kStops = std::is_same_v<Message, ipc::messages::StopService>;
  Message request;
  request.service(service);
  request.from("kovactl");  // named in the camera's log
  return requestFromServer(
      options, request, service + " " + done + "\n",
      kStops && isNeeded(service)
          ? service + " is never stopped by request: the camera could not be managed without it"
          : refusalOf(service));
}

}  // namespace

Action setUpService(CommandLine& line) {
  auto service = std::make_shared<std::string>();
  const CommandLine list = line.subcommand("list", "List the services and their states");
  CommandLine start = line.subcommand("start", "Start a service, now and at every boot");
  CommandLine stop = line.subcommand("stop", "Stop a service, now and at every boot");
  for (CommandLine* sub : {&start, &stop}) {
    sub->argument("NAME", *service, "Name of the service");
  }
  line.footer(
      "The list shows the services of systemd or those in /etc/sv, of the local machine or, with "
      "--host, of the remote camera. Under runit the states require root.");
  return [service, list, start](const Options& options) {
    using namespace ipc::messages;
    if (list.given()) {
      return options.host.empty() ? showList(options) : runThere(options, {"service", "list"});
    }
    return start.given() ? control<StartService>(options, *service, "is started.")
                         : control<StopService>(options, *service, "is stopped.");
  };
}

}  // namespace kova::ctl
