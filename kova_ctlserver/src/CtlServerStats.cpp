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
constexpr char kOperation[] = "readStats";

/// Logs a reader's failure; true when `code` is none.
bool succeeded(int code, const char* what) {
  if (code != 0) {
    KOVA_LOG_IN(kOperation, LOG_ERR, 0, "Failed to read %s (%d)", what, code);
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
  auto& section = reply["cpuinfo"];
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

/// The interface that carries the default route, or failing that the first. `stats` reports at
/// least one.
const utils::NetworkInterfaceStats& chooseInterface(utils::NetworkStats& stats) {
  const std::string preferred = network::guessDefaultInterface();
  for (std::uint8_t i = 0; i < stats.count; ++i) {
    utils::trim(stats.interfaces[i].name);
    if (stats.interfaces[i].name == preferred) {
      return stats.interfaces[i];
    }
  }
  return stats.interfaces[0];
}

/// The record of the default interface, or the slot after the reported ones when it is not among
/// them: the section is reported in either case.
const utils::WiFiInterfaceStats& chooseWifi(const utils::WiFiStats& stats) {
  const std::string preferred = network::guessDefaultInterface();
  const auto* first = stats.interfaces.data();
  const auto* last = first + std::min<std::size_t>(stats.count, utils::WiFiStats::kMax);
  return *std::find_if(first, last, [&](const utils::WiFiInterfaceStats& record) {
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
  section["quality"] = (signal + 100) * 2;
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
    KOVA_LOG_IN(kOperation, LOG_ERR, 0, "Failed to read battery statistics");
    return false;
  }
  auto& section = reply["battery"];
  section["percentage"] = battery.percentage;
  section["isCharging"] = battery.isCharging;
  return true;
}

}  // namespace

bool CtlServer::readStats(ipc::messages::GetSystemStats& request, Variant& reply) {
  reply.Reset();
  reply.IsArray(false);
  const logger::Origin here = KOVA_LOG_ORIGIN(__func__);
  return (!request.memory() || readMemory(reply)) && (!request.cpu() || readCpu(reply)) &&
         (!request.cpuInfo() || readCpuInfo(reply)) &&
         (!request.loadavg() || readLoadAverage(reply)) &&
         (!request.network() || readNetwork(reply)) &&
         // The features are read whatever was asked for: a description that lacks them is found at
         // once.
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
    usage.PushToArray(cpu.percent[i]);
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
