#include "Metrics.h"

#include <array>
#include <charconv>
#include <cmath>
#include <map>
#include <optional>
#include <utility>

#include "../Client.h"
#include "../Command.h"
#include "../Output.h"
#include "../Text.h"
#include "Stats.h"
#include "kova/messages/Requests.h"

namespace kova::ctl {
namespace {

using variant::Variant;
using Labels = std::vector<std::pair<std::string, std::string>>;

enum class Type { Gauge, Counter };

struct Sample {
  Labels labels;
  double value;
};

struct Family {
  std::string name;
  std::string help;
  Type type = Type::Gauge;
  std::vector<Sample> samples{};
};

std::string labelText(const Labels& labels) {
  std::string text;
  for (const auto& [name, value] : labels) {
    text += (text.empty() ? "{" : ",") + name + "=\"";
    for (const char c : printable(value)) {
      text += c == '"' || c == '\\' ? std::string{'\\', c} : std::string(1, c);
    }
    text += '"';
  }
  return text.empty() ? "" : text + "}";
}

std::string numberText(double value) {
  std::array<char, 32> text{};
  const auto end = std::to_chars(text.data(), text.data() + text.size(), value);
  return {text.data(), end.ptr};
}

void append(std::string& text, const Family& family) {
  std::string samples;
  for (const Sample& sample : family.samples) {
    if (std::isfinite(sample.value)) {
      samples += family.name + labelText(sample.labels) + " " + numberText(sample.value) + "\n";
    }
  }
  if (!samples.empty()) {
    text += "# HELP " + family.name + " " + family.help + "\n";
    text += family.type == Type::Gauge ? "# TYPE " + family.name + " gauge\n" : "";
    text += samples;
  }
}

std::optional<double> figure(const Variant& statistics, std::string_view section,
                             std::string_view key) {
  const Variant* value = statistics.GetKeyChain(variant::VariantClass::Number, {section, key});
  return value != nullptr ? std::optional(value->toNumber<double>()) : std::nullopt;
}

/// A statistic that is a single number.
struct Figure {
  const char* name;
  const char* help;
  const char* section;
  const char* key;
  double unit = 1;
};

constexpr std::array<Figure, 6> kFigures{{
    {"kova_memory_total_bytes", "Memory of the camera.", "memory", "totalKb", 1024},
    {"kova_memory_free_bytes", "Memory that is not in use.", "memory", "freeKb", 1024},
    {"kova_load1", "Load average of one minute.", "loadavg", "01min"},
    {"kova_load5", "Load average of five minutes.", "loadavg", "05min"},
    {"kova_load15", "Load average of a quarter of an hour.", "loadavg", "15min"},
    {"kova_uptime_seconds", "Time since the camera booted.", "uptime", "sec"},
}};

// Undoes the noise of single precision, in which the camera keeps the load; it has two decimals.
double rounded(double value) {
  return std::round(value * 100) / 100;
}

void appendFigures(std::string& text, const Variant& statistics) {
  for (const Figure& row : kFigures) {
    if (const auto value = figure(statistics, row.section, row.key); value) {
      append(text, {row.name, row.help, Type::Gauge, {{{}, rounded(*value * row.unit)}}});
    }
  }
}

void appendProcessors(std::string& text, const Variant& statistics) {
  Family family{"kova_cpu_busy_ratio", "Share of the time for which a processor is busy."};
  const Variant* section = statistics.find("cpu");
  const Variant* busy = section != nullptr ? section->find("arr") : nullptr;
  for (const Variant& percent : busy != nullptr ? busy->items() : Variant::Array{}) {
    const std::string cpu = std::to_string(family.samples.size());
    family.samples.push_back({{{"cpu", cpu}}, percent.toNumber<double>() / 100});
  }
  append(text, family);
}

void appendNetwork(std::string& text, const Variant& statistics) {
  const Variant* name = statistics.GetKeyChain(variant::VariantClass::String, {"network", "name"});
  const auto received = figure(statistics, "network", "bytesRx");
  const auto sent = figure(statistics, "network", "bytesTx");
  if (name == nullptr || !received || !sent) {
    return;
  }
  const Labels labels{{"interface", name->toText()}};
  append(text, {"kova_network_receive_bytes_total",
                "Bytes received since the camera booted.",
                Type::Counter,
                {{labels, *received}}});
  append(text, {"kova_network_transmit_bytes_total",
                "Bytes sent since the camera booted.",
                Type::Counter,
                {{labels, *sent}}});
}

void appendWifi(std::string& text, const Variant& statistics) {
  const Variant* section = statistics.find("wifi");
  if (section == nullptr || !hasLink(*section)) {
    return;
  }
  append(text, {"kova_wifi_signal_dbm",
                "Level of the radio signal.",
                Type::Gauge,
                {{{}, figure(statistics, "wifi", "signalStrength").value_or(0)}}});
  append(text, {"kova_wifi_quality_ratio",
                "Quality that is derived from the level.",
                Type::Gauge,
                {{{}, figure(statistics, "wifi", "quality").value_or(0) / 100}}});
}

void appendBattery(std::string& text, const Variant& statistics) {
  if (const auto charge = figure(statistics, "battery", "percentage"); charge) {
    append(text, {"kova_battery_charge_ratio",
                  "Charge of the battery.",
                  Type::Gauge,
                  {{{}, *charge / 100}}});
  }
  const Variant* charging =
      statistics.GetKeyChain(variant::VariantClass::Boolean, {"battery", "isCharging"});
  if (charging != nullptr) {
    append(text, {"kova_battery_charging",
                  "Whether the battery is being charged.",
                  Type::Gauge,
                  {{{}, charging->toBool() ? 1.0 : 0.0}}});
  }
}

void appendFlag(std::string& text, const char* name, const char* help, bool value) {
  append(text, {name, help, Type::Gauge, {{{}, value ? 1.0 : 0.0}}});
}

void appendDevice(std::string& text, const Device& device) {
  append(text, {"kova_device_info",
                "What the camera is; the value is 1.",
                Type::Gauge,
                {{{{"model", device.model},
                   {"sysid", device.sysId.isEmpty() ? "" : cell(device.sysId)},
                   {"name", device.name},
                   {"firmware_version", device.firmwareVersion},
                   {"daemon_version", device.daemonVersion},
                   {"boot_id", device.bootId}},
                  1}}});
  appendFlag(text, "kova_save_pending", "Whether the configuration waits to be saved.",
             device.savePending);
  appendFlag(text, "kova_reset_pending", "Whether a factory reset is due.", device.resetPending);
  appendFlag(text, "kova_button_readable", "Whether the reset button can be read.",
             device.buttonReadable);
  if (!device.lastSaveOutcome.empty()) {
    append(text,
           {"kova_last_save_timestamp_seconds",
            "When a save ended last.",
            Type::Gauge,
            {{{{"outcome", device.lastSaveOutcome}}, static_cast<double>(device.lastSave) / 1e6}}});
  }
}

using Counts = std::map<std::pair<std::string, std::string>, unsigned>;

// Every combination gets a series, even on an idle camera.
constexpr std::array kTransferKinds{"firmware",      "logo",         "sound",      "snapshot",
                                    "eventSnapshot", "eventHeatmap", "supportInfo"};
constexpr std::array kPhases{"preparing", "transferring", "finalising"};

// Gauges, not counters: the camera drops old records.
void appendTransfers(std::string& text, const std::vector<TransferRecord>& transfers) {
  Counts active;
  for (const char* kind : kTransferKinds) {
    for (const char* phase : kPhases) {
      active[{kind, phase}] = 0;
    }
  }
  Counts ended;
  for (const TransferRecord& record : transfers) {
    const bool over = record.hasEnded();
    // Keyed by the printed form: different texts may print alike.
    ++(over ? ended
            : active)[{printable(record.kind), printable(over ? record.outcome : record.phase)}];
  }
  Family now{"kova_transfers_active", "Transfers under way."};
  for (const auto& [key, count] : active) {
    now.samples.push_back({{{"kind", key.first}, {"phase", key.second}}, double(count)});
  }
  Family past{"kova_transfers_ended", "Transfers among the last that have ended."};
  for (const auto& [key, count] : ended) {
    past.samples.push_back({{{"kind", key.first}, {"outcome", key.second}}, double(count)});
  }
  append(text, now);
  append(text, past);
}

}  // namespace

std::string metricsText(const Variant& statistics, const Device* device,
                        const std::vector<TransferRecord>* transfers) {
  std::string text;
  if (device != nullptr) {
    appendDevice(text, *device);
  }
  appendFigures(text, statistics);
  appendProcessors(text, statistics);
  appendNetwork(text, statistics);
  appendWifi(text, statistics);
  appendBattery(text, statistics);
  if (transfers != nullptr) {
    appendTransfers(text, *transfers);
  }
  return text + "# EOF\n";
}

namespace {

// Older cameras lack some objects; that is not a failure.
ExitStatus judged(const Options& options, ExitStatus asked, const Objects::Answer& answer,
                  const char* what) {
  const bool had = asked != ExitStatus::Ok || answer.error.empty() || isUnknown(answer);
  return had ? asked : reportFailure(answer, what, options.host);
}

ExitStatus metrics(const Options& options) {
  Client client(options);
  if (const ExitStatus joined = client.join(); joined != ExitStatus::Ok) {
    return joined;
  }
  ipc::messages::GetSystemStats request;
  const Reply reply =
      client.request(request, options.answerTimeoutMs(), "the missing figures could not be read");
  if (!reply.answered) {
    return reply.status;
  }
  Objects objects(options);
  if (const ExitStatus opened = objects.open(); opened != ExitStatus::Ok) {
    return opened;
  }
  Device device;
  Objects::Answer told;
  Objects::Answer listed;
  std::vector<TransferRecord> transfers;
  ExitStatus asked =
      judged(options, readDevice(objects, device, told), told, "the description of the camera");
  if (asked == ExitStatus::Ok) {
    asked =
        judged(options, objects.readTransfers(transfers, listed), listed, "the list of transfers");
  }
  if (asked != ExitStatus::Ok) {
    return asked;
  }
  const std::string text = metricsText(payloadOf(reply), told.error.empty() ? &device : nullptr,
                                       listed.error.empty() ? &transfers : nullptr);
  const ExitStatus shown = present(options, text, text);
  return reply.status != ExitStatus::Ok ? reply.status : shown;
}

}  // namespace

Action setUpMetrics(CommandLine& line) {
  line.footer(
      "For node_exporter, run it periodically and rename the file into place:\n"
      "  kovactl metrics >kova.prom.new && mv kova.prom.new kova.prom");
  return metrics;
}

}  // namespace kova::ctl
