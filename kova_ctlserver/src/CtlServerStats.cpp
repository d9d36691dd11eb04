#include <algorithm>
#include <cstring>
#include <string_view>

#include "CtlServer.h"
#include "kova/logger/Logger.h"
#include "kova/network/Network.h"
#include "kova/utils/Strings.h"

namespace kova::ctlserver {
namespace {

using variant::Variant;

constexpr char kLogIdentity[] = "kova_ctlserver";
constexpr char kLogUnit[] = "CtlServer";
constexpr char kReadStats[] = "readStats";  // kept: 15

/// Logs the failure of a reader, if `code` is one.
bool succeeded(int code, const char* what, int line = __builtin_LINE()) {
  if (code != 0) {
    KOVA_LOG_LINE(line, kReadStats, LOG_ERR, 0, "Failed to read %s (%d)", what, code);
  }
  return code == 0;
}

bool readCpuInfo(Variant& reply) {
  utils::CpuInfo info;
  if (!succeeded(utils::GetCpuInfo(&info), "cpu info")) {
    return false;
  }
  utils::trim(info.processor);
  utils::trim(info.features);
  auto& section = reply["cpuinfo"];  // kept: 92
  section["processor"] = info.processor;
  section["features"] = info.features;
  return true;
}

bool readLoadAverage(Variant& reply) {
  utils::LoadAverage load{};
  if (!succeeded(utils::GetLoadAverage(&load), "load average")) {
    return false;
  }
  auto& section = reply["loadavg"];
  section["01min"] = static_cast<double>(load.min01);
  section["05min"] = static_cast<double>(load.min05);
  section["15min"] = static_cast<double>(load.min15);
  return true;
}

/// Returns the interface of the default route, or the first one. `stats` must not be empty.
const utils::NetworkInterfaceStats& chooseInterface(utils::NetworkStats& stats) {
  const std::string preferred = network::guessDefaultInterface();
  for (std::uint8_t i = 0; i < stats.count; ++i) {
    utils::trim(stats.interfaces[i].name);  // kept: 95
    if (stats.interfaces[i].name == preferred) {
      return stats.interfaces[i];
    }
  }
  return stats.interfaces[0];  // kept: 93
}

/// Returns the record of the default interface, or the slot after the reported ones: the section is
/// always present.
const utils::WiFiInterfaceStats& chooseWifi(const utils::WiFiStats& stats) {
  const std::string preferred = network::guessDefaultInterface();
  const auto* first = stats.interfaces.data();
  const auto* last = first + std::min<std::size_t>(stats.count, utils::WiFiStats::kMax);
  return *std::find_if(first, last, [&](const utils::WiFiInterfaceStats& record) {  // kept: 94
    return std::string_view(record.name, strnlen(record.name, sizeof record.name)) == preferred;
  });
}

bool readWifi(Variant& reply) {
  utils::WiFiStats stats{};
  if (!succeeded(utils::GetWiFiStats(&stats), "Wi-Fi statistics")) {
    return false;
  }
  const std::int32_t signal = chooseWifi(stats).signalDbm;
  auto& section = reply["wifi"];
  section["signalStrength"] = signal;
  section["quality"] = (signal + 100) * 2;  // kept: 96
  return true;
}

bool readUptime(Variant& reply) {
  utils::UptimeStats uptime{};
  if (!succeeded(utils::GetUptimeStats(&uptime), "uptime")) {
    return false;
  }
  reply["uptime"]["sec"] = uptime.sec;
  return true;
}

bool readBattery(Variant& reply) {
  utils::BatteryInfo battery{};
  if (!utils::GetBatteryInfo(battery)) {
    KOVA_LOG_IN(kReadStats, LOG_ERR, 0, "Failed to read battery statistics");
    return false;
  }
  auto& section = reply["battery"];
  section["percentage"] = battery.percentage;
  section["isCharging"] = battery.isCharging;
  return true;
}

}  // namespace

bool CtlServer::readStats(ipc::messages::GetSystemStats& request, Variant& reply) {  // kept: 99
  reply.Reset();
  reply.IsArray(false);  // an empty answer is a map
  const logger::Origin here = KOVA_LOG_ORIGIN(__func__);
  // kept: 97
  return (!request.memory() || readMemory(reply)) && (!request.cpu() || readCpu(reply)) &&
         (!request.cpuInfo() || readCpuInfo(reply)) &&
         (!request.loadavg() || readLoadAverage(reply)) &&
         (!request.network() || readNetwork(reply)) &&
         // Features are read on every request, so that an incomplete description is found at once.
         (cameraInfo_.featureWifi(here) == 0 || !request.wifi() || readWifi(reply)) &&
         (!request.uptime() || readUptime(reply)) &&
         (cameraInfo_.featureBattery(here) == 0 || !request.battery() || readBattery(reply));
}

bool CtlServer::readMemory(Variant& reply) {
  utils::MemoryStats memory{};
  if (!succeeded(utils::GetMemoryStats(statsHandle_, &memory), "memory statistics")) {
    return false;
  }
  auto& section = reply["memory"];
  section["totalKb"] = memory.totalKb;
  section["freeKb"] = memory.freeKb;
  return true;
}

bool CtlServer::readCpu(Variant& reply) {
  utils::CpuStats cpu{};
  if (!succeeded(utils::GetCpuStats(statsHandle_, &cpu), "cpu statistics")) {
    return false;
  }
  auto& section = reply["cpu"];
  section["cnt"] = cpu.count;
  auto& usage = section["arr"];
  usage.IsArray(true);
  for (std::uint8_t i = 0; i < cpu.count; ++i) {
    usage.pushToArray(cpu.percent[i]);
  }
  return true;
}

bool CtlServer::readNetwork(Variant& reply) {
  utils::NetworkStats stats{};
  if (!succeeded(utils::GetNetworkStats(statsHandle_, &stats), "network statistics")) {
    return false;
  }
  auto& section = reply["network"];
  section["numifaces"] = stats.count;
  if (stats.count != 0) {
    const auto& interface = chooseInterface(stats);
    section["name"] = interface.name;
    section["bytesRx"] = interface.bytesRx;
    section["bytesTx"] = interface.bytesTx;
    section["upBps"] = interface.upBps;
    section["dnBps"] = interface.dnBps;
  }
  return true;
}

}  // namespace kova::ctlserver
