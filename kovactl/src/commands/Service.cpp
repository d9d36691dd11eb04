#include "Service.h"

#include <algorithm>
#include <filesystem>
#include <set>
#include <string_view>
#include <type_traits>

#include "../BusDiagnosis.h"
#include "../Client.h"
#include "../Command.h"
#include "../Output.h"
#include "../Remote.h"
#include "../Suggestion.h"
#include "../Text.h"
#include "kova/messages/Requests.h"
#include "kova/utils/Process.h"

namespace kova::ctl {
namespace {

namespace fs = std::filesystem;

// The folders of runit with the installed services and those started at boot.
constexpr const char* kInstalled = "/etc/sv";
constexpr const char* kStarted = "/etc/service";
constexpr const char* kSv = "/usr/bin/sv";

// "run", "down" or "unknown"; sv(8) requires root.
std::string stateOf(const std::string& service, bool started) {
  constexpr unsigned kPatienceMs = 2000;
  std::string out;
  std::string err;
  utils::sysExec(kSv, {"status", kInstalled + ("/" + service)}, "", out, err, kPatienceMs, 0, 4);
  std::string word = out.substr(0, out.find(':'));
  if (word == "run" || word == "down") {
    return word;
  }
  return started ? "unknown" : "down";
}

ExitStatus showList(const Options& options) {
  warnOfLocal("service list", kInstalled);
  const std::vector<std::string> services = installedServices();
  if (services.empty()) {
    return fail(ExitStatus::Local,
                std::string("no services found in ") + kInstalled + ": run kovactl on the camera");
  }
  variant::Variant all = variant::Variant::Array{};
  std::vector<Row> rows;
  for (const std::string& name : services) {
    std::error_code ignored;
    const bool started = fs::exists(fs::path(kStarted) / name, ignored) &&
                         !fs::exists(fs::path(kInstalled) / name / "down", ignored);
    const std::string state = stateOf(name, started);
    all.pushToArray(variant::Variant::Map{{"name", name}, {"state", state}, {"atBoot", started}});
    rows.push_back({printable(name), state + (started ? ", started at boot" : "")});
  }
  return present(options, all, table(rows));
}

// The camera stops none that it is managed by.
bool isNeeded(const std::string& service) {
  constexpr std::string_view kNeeded[] = {"kova_bus", kServer, "syslogd"};
  return std::ranges::find(kNeeded, service) != std::end(kNeeded);
}

std::string refusalOf(const std::string& service) {
  const std::vector<std::string> known = installedServices();
  const auto has = [&known](const std::string& name) {
    return std::ranges::find(known, name) != known.end();
  };
  // Other machines than a camera have other services.
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

std::vector<std::string> installedServices() {
  std::set<std::string> names;
  std::error_code error;
  for (fs::directory_iterator entry(kInstalled, error); !error && entry != fs::directory_iterator();
       entry.increment(error)) {
    std::error_code ignored;
    if (entry->is_directory(ignored)) {
      names.insert(entry->path().filename().string());
    }
  }
  return {names.begin(), names.end()};
}

Action setUpService(CommandLine& line) {
  auto service = std::make_shared<std::string>();
  const CommandLine list = line.subcommand("list", "List the services and their states");
  CommandLine start = line.subcommand("start", "Start a service, now and at every boot");
  CommandLine stop = line.subcommand("stop", "Stop a service, now and at every boot");
  for (CommandLine* sub : {&start, &stop}) {
    sub->argument("NAME", *service, "Name of the service");
  }
  line.footer(
      "The list shows the services in /etc/sv of the local machine, or of that of --host. The "
      "states require root.");
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
