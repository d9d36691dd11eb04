#include "Stats.h"

#include <strings.h>

#include <algorithm>
#include <chrono>
#include <ctime>
#include <optional>

#include "../Client.h"
#include "../Command.h"
#include "../Output.h"
#include "../Suggestion.h"
#include "../Terminal.h"
#include "kova/messages/Requests.h"
#include "kova/utils/Strings.h"

namespace kova::ctl {
namespace {

using variant::Variant;

double number(const Variant& section, std::string_view key) {
  const Variant* value = section.find(key);
  return value != nullptr ? value->toNumber<double>() : 0;
}

std::string text(const Variant& section, std::string_view key) {
  const Variant* value = section.find(key);
  return value != nullptr ? cell(*value) : "-";
}

std::string memory(const Variant& section) {
  const double total = number(section, "totalKb");
  const double used = std::max(0.0, total - number(section, "freeKb"));
  return humanBytes(used * 1024) + " of " + humanBytes(total * 1024) + " used (" +
         utils::format("%.0f %%", total > 0 ? 100 * used / total : 0) + "), " +
         humanBytes(number(section, "freeKb") * 1024) + " free";
}

std::string processors(const Variant& section) {
  const Variant* busy = section.find("arr");
  std::string out;
  for (const Variant& value : busy != nullptr ? busy->items() : Variant::Array{}) {
    out += (out.empty() ? "" : "  ") + utils::format("%.0f %%", value.toNumber<double>());
  }
  return out.empty() ? "-" : out + " busy";
}

std::string processorModel(const Variant& section) {
  return text(section, "processor");
}

std::string load(const Variant& section) {
  return utils::format("%.2f", number(section, "01min")) + "  " +
         utils::format("%.2f", number(section, "05min")) + "  " +
         utils::format("%.2f", number(section, "15min")) + "  (1, 5, 15 min)";
}

std::string network(const Variant& section) {
  if (section.find("name") == nullptr) {
    return "no interface";
  }
  return text(section, "name") + ": down " + humanBytes(number(section, "dnBps")) + "/s, up " +
         humanBytes(number(section, "upBps")) + "/s; received " +
         humanBytes(number(section, "bytesRx")) + ", sent " +
         humanBytes(number(section, "bytesTx"));
}

std::string wifi(const Variant& section) {
  if (!hasLink(section)) {
    return "no link";
  }
  return text(section, "signalStrength") + " dBm, quality " + text(section, "quality") + " %";
}

std::string uptime(const Variant& section) {
  const Variant* seconds = section.find("sec");
  return seconds != nullptr ? humanDuration(seconds->toNumber<std::uint64_t>()) : "-";
}

std::string battery(const Variant& section) {
  const Variant* charging = section.find("isCharging");
  return text(section, "percentage") + " %" +
         (charging != nullptr && charging->toBool() ? ", charging" : "");
}

}  // namespace

bool hasLink(const Variant& wifi) {
  constexpr double kNothing = -100;
  const double level = number(wifi, "signalStrength");
  return level > kNothing && level < 0;
}

const std::vector<StatsSection>& statsSections() {
  static const std::vector<StatsSection> sections{
      {"memory", "memory", "Memory", memory},
      {"cpu", "cpu", "Processors", processors},
      {"cpuInfo", "cpuinfo", "Model", processorModel},
      {"loadavg", "loadavg", "Load", load},
      {"network", "network", "Network", network},
      {"wifi", "wifi", "Wi-Fi", wifi},
      {"uptime", "uptime", "Up", uptime},
      {"battery", "battery", "Battery", battery},
  };
  return sections;
}

const StatsSection* findStatsSection(const std::string& name) {
  const auto& sections = statsSections();
  const auto found = std::ranges::find_if(sections, [&name](const StatsSection& section) {
    return strcasecmp(std::string(section.flag).c_str(), name.c_str()) == 0;
  });
  return found != sections.end() ? &*found : nullptr;
}

std::vector<Row> statsRows(const Variant& reply, const std::vector<const StatsSection*>& wanted) {
  std::vector<Row> rows;
  for (const StatsSection& section : statsSections()) {
    const Variant* content = reply.find(section.key);
    if (content != nullptr) {
      rows.push_back({std::string(section.label), section.describe(*content)});
    } else if (std::ranges::find(wanted, &section) != wanted.end()) {
      rows.push_back({std::string(section.label), "not reported"});
    }
  }
  return rows;
}

namespace {

using Sections = std::vector<const StatsSection*>;

struct StatsArguments {
  std::vector<std::string> sections;
  std::optional<std::string> watch;  ///< interval; "" for the default
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

ExitStatus showOnce(Client& client, const Sections& wanted) {
  auto request = requestFor(wanted);
  const Reply reply = client.request(request, client.options().answerTimeoutMs(),
                                     "the missing sections could not be read");
  if (!reply.answered) {
    return reply.status;
  }
  const Variant payload = payloadOf(reply);
  const ExitStatus shown = present(client.options(), payload, table(statsRows(payload, wanted)));
  return reply.status != ExitStatus::Ok ? reply.status : shown;
}

// Polls the statistics until something fails or stops it; `frame` shows each payload.
ExitStatus repeat(Client& client, const Sections& wanted, std::uint32_t intervalMs,
                  const std::function<ExitStatus(const Variant&)>& frame) {
  while (true) {
    auto request = requestFor(wanted);
    const Reply reply = client.request(request, client.options().answerTimeoutMs());
    if (reply.status != ExitStatus::Ok) {
      return reply.status;
    }
    const ExitStatus shown = frame(payloadOf(reply));
    if (shown != ExitStatus::Ok) {
      return shown;
    }
    const ExitStatus slept = client.serveUntil([] { return false; }, intervalMs);
    if (slept != ExitStatus::NoAnswer) {
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
  return std::string(text) + "  every " + humanSeconds(intervalMs) + ", Ctrl-C to stop\n\n";
}

ExitStatus watchOnTerminal(Client& client, const Sections& wanted, std::uint32_t intervalMs) {
  AlternateScreen screen;
  return repeat(client, wanted, intervalMs, [&](const Variant& payload) {
    return screen.show(heading(intervalMs) + table(statsRows(payload, wanted))) ? ExitStatus::Ok
                                                                                : show("");
  });
}

ExitStatus watch(Client& client, const Sections& wanted, std::uint32_t intervalMs) {
  if (outputIsTerminal() && !client.options().json) {
    return watchOnTerminal(client, wanted, intervalMs);
  }
  return repeat(client, wanted, intervalMs, [&](const Variant& payload) {
    return presentEach(client.options(), payload, table(statsRows(payload, wanted)) + "\n");
  });
}

std::vector<std::string> sectionNames() {
  std::vector<std::string> names;
  for (const StatsSection& section : statsSections()) {
    names.emplace_back(section.flag);
  }
  return names;
}

// The value of --watch is an interval only if it begins like a number; in "--watch memory" it is a
// section.
bool takeInterval(const std::string& interval, std::vector<std::string>& names,
                  std::uint32_t& intervalMs, std::string& error) {
  if (interval.empty()) {
    return true;
  }
  if (interval.find_first_of("0123456789.-") != 0) {
    names.push_back(interval);
    return true;
  }
  if (!parseDuration(interval, intervalMs)) {
    error = "--watch: \"" + interval + "\" is not a duration: " + std::string(kDurationForms);
    return false;
  }
  if (intervalMs == 0) {
    error = "--watch: must be more than 0, for example 0.5; the default is 2 seconds";
    return false;
  }
  return true;
}

ExitStatus run(const Options& options, const StatsArguments& arguments) {
  std::uint32_t intervalMs = 2000;
  std::vector<std::string> names = arguments.sections;
  std::string error;
  if (!takeInterval(arguments.watch.value_or(""), names, intervalMs, error)) {
    return fail(ExitStatus::Usage, error);
  }
  Sections wanted;
  for (const std::string& name : names) {
    wanted.push_back(findStatsSection(name));
    if (wanted.back() == nullptr) {
      return fail(ExitStatus::Usage, notFound("section", name, sectionNames()));
    }
  }
  Client client(options);
  if (const ExitStatus joined = client.join(); joined != ExitStatus::Ok) {
    return joined;
  }
  return arguments.watch ? watch(client, wanted, intervalMs) : showOnce(client, wanted);
}

}  // namespace

Action setUpStats(CommandLine& line) {
  auto arguments = std::make_shared<StatsArguments>();
  line.arguments("SECTION", arguments->sections,
                 "Sections to show (all): " + alternatives(sectionNames()));
  line.optionalValue("--watch", arguments->watch, "[TIME]",
                     "Repeat at this interval (2s) until Ctrl-C");
  line.footer(
      "On a terminal --watch refreshes in place. With --json it prints one line each time.");
  return [arguments](const Options& options) { return run(options, *arguments); };
}

}  // namespace kova::ctl
