#include <algorithm>
#include <chrono>
#include <ctime>
#include <optional>

#include "../Answer.h"
#include "../Command.h"
#include "../StatsTable.h"
#include "../StopSignals.h"
#include "../Terminal.h"
#include "../Text.h"
#include "kova/messages/Requests.h"

namespace kova::ctl {
namespace {

using Sections = std::vector<const StatsSection*>;

struct Arguments {
  std::vector<std::string> sections;
  std::optional<std::string> watch;  ///< how often, in seconds; "" leaves it to us
};

ipc::messages::GetSystemStats requestFor(const Sections& wanted) {
  ipc::messages::GetSystemStats request;
  for (const StatsSection& section : statsSections()) {
    if (!wanted.empty()) {
      request[section.flag] = std::ranges::find(wanted, &section) != wanted.end();
    }
  }
  return request;
}

std::string render(const Options& options, const Reply& reply, const Sections& wanted, int indent) {
  const variant::Variant payload = payloadOf(reply);
  return options.json ? json(payload, indent) + "\n" : table(statsRows(payload, wanted));
}

Exit showOnce(Client& client, const Sections& wanted) {
  auto request = requestFor(wanted);
  const Reply reply = client.Request(request, client.Settings().answerTimeoutMs(),
                                     "what is missing could not be read");
  if (!reply.answered) {
    return reply.status;
  }
  const Exit shown = show(render(client.Settings(), reply, wanted, 2));
  return reply.status != Exit::Ok ? reply.status : shown;
}

// Asks again and again; `present` shows a frame. Ends only when something fails or is stopped.
Exit repeat(Client& client, const Sections& wanted, std::uint32_t intervalMs,
            const std::function<Exit(const std::string&)>& present) {
  while (true) {
    auto request = requestFor(wanted);
    const Reply reply = client.Request(request, client.Settings().answerTimeoutMs());
    if (reply.status != Exit::Ok) {
      return reply.status;
    }
    const Exit shown = present(render(client.Settings(), reply, wanted, -1));
    if (shown != Exit::Ok) {
      return shown;
    }
    const Exit slept = client.ServeUntil([] { return false; }, intervalMs);
    if (slept != Exit::NoAnswer) {
      return slept;
    }
  }
}

std::string heading(std::uint32_t intervalMs) {
  const std::time_t now = std::time(nullptr);
  tm local{};
  localtime_r(&now, &local);
  char text[16];
  std::strftime(text, sizeof text, "%H:%M:%S", &local);
  return std::string(text) + "  every " + cell(intervalMs / 1000.0) + " s, Ctrl-C ends\n\n";
}

Exit watchOnTerminal(Client& client, const Sections& wanted, std::uint32_t intervalMs) {
  AlternateScreen screen;
  return repeat(client, wanted, intervalMs, [&](const std::string& frame) {
    return screen.Show(heading(intervalMs) + frame) ? Exit::Ok : show("");
  });
}

Exit watch(Client& client, const Sections& wanted, std::uint32_t intervalMs) {
  if (outputIsTerminal() && !client.Settings().json) {
    return watchOnTerminal(client, wanted, intervalMs);
  }
  const std::string gap = client.Settings().json ? "" : "\n";
  return repeat(client, wanted, intervalMs,
                [&gap](const std::string& frame) { return show(frame + gap); });
}

Exit run(const Options& options, const Arguments& arguments) {
  std::uint32_t intervalMs = 2000;
  std::vector<std::string> names = arguments.sections;
  // "--watch memory" names a section: what is no number was not meant for --watch.
  const std::string interval = arguments.watch.value_or("");
  if (!interval.empty() && !parseSeconds(interval, intervalMs)) {
    names.push_back(interval);
  }
  Sections wanted;
  for (const std::string& name : names) {
    wanted.push_back(findStatsSection(name));
    if (wanted.back() == nullptr) {
      return fail(Exit::Usage,
                  "there is no section \"" + name + "\"; see \"kovactl stats --help\"");
    }
  }
  Client client(options);
  if (const Exit joined = client.Join(); joined != Exit::Ok) {
    return joined;
  }
  return arguments.watch ? watch(client, wanted, intervalMs) : showOnce(client, wanted);
}

}  // namespace

Action setUpStats(CommandLine& line) {
  auto arguments = std::make_shared<Arguments>();
  std::string names;
  for (const StatsSection& section : statsSections()) {
    names += " " + std::string(section.flag);
  }
  line.Arguments("SECTION", arguments->sections, "What to show (all):" + names);
  line.OptionalValue("--watch", arguments->watch, "[SECONDS]",
                     "Show it again every so many seconds (2), until Ctrl-C");
  line.Footer(
      "On a terminal --watch refreshes in place. With --json it prints one line of JSON each "
      "time.\n");
  return [arguments](const Options& options) { return run(options, *arguments); };
}

}  // namespace kova::ctl
