#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <optional>
#include <ostream>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "kova/gpio/Button.h"
#include "kova/ipc/Objects.h"
#include "kova/messages/BaseMessage.h"
#include "kova/utils/Stats.h"
#include "kova/variant/Variant.h"

/// The scripted platform: a program linked against this library instead of the real system
/// libraries runs on a fake clock, starts no process and joins no bus. Tests set its inputs here
/// and find its actions recorded here.
namespace kova::fakes {

struct LogLine {
  std::string unit;
  std::string function;
  int level;
  int error;
  std::string text;
  std::string identity = "kova_ctlserver";  ///< the daemon's, unless a library logs
  int line = 0;                             ///< source line; not compared

  bool operator==(const LogLine& other) const {
    return std::tie(unit, function, level, error, text, identity) ==
           std::tie(other.unit, other.function, other.level, other.error, other.text,
                    other.identity);
  }
};
std::ostream& operator<<(std::ostream& out, const LogLine& line);

/// The result of running a fake program.
struct ProcessResult {
  int status = 0;
  std::string out;
  std::string err;
};

/// The arguments of sysExec besides the command.
struct CaptureTerms {
  std::string input;
  unsigned timeoutMs;
  unsigned graceMs;
  unsigned captureKiB;

  bool operator==(const CaptureTerms&) const = default;
};
std::ostream& operator<<(std::ostream& out, const CaptureTerms& terms);

struct Statistics {
  int initResult = 0;
  int memoryResult = 0, cpuResult = 0, cpuInfoResult = 0, loadResult = 0, networkResult = 0,
      wifiResult = 0, uptimeResult = 0;
  bool batteryResult = true;
  utils::MemoryStats memory{};
  utils::CpuStats cpu{};
  utils::CpuInfo cpuInfo;
  utils::LoadAverage load{};
  utils::NetworkStats network{};
  utils::WiFiStats wifi{};
  utils::UptimeStats uptime{};
  utils::BatteryInfo battery{};
  std::string defaultInterface;
};

/// An object or folder published at or below "/kova", as passed to Objects::publish().
struct Published {
  std::string folder;  ///< "": the object "/kova" itself
  ipc::Interface interface;
  ipc::PublishedObject* object = nullptr;
  ipc::PublishedFolder* objects = nullptr;
};

/// A signal about a published object, with the values at that time.
struct Signal {
  std::string what;  ///< "added", "changed" or "removed"
  std::string interface;
  std::uint64_t number = 0;  ///< 0: "/kova" itself
  std::map<std::string, ipc::PropertyValue> values = {};
};

struct Bus {
  bool initResult = true;
  bool addResult = true;  ///< of AddHandler(), which registers regardless
  bool sendResult = true;
  bool absent = false;                 ///< GetInstance() returns null
  std::vector<variant::Variant> sent;  ///< requests and events
  variant::Variant given;              ///< the last of `sent`, before normalisation
  std::vector<std::pair<variant::Variant, variant::Variant>> responses;  ///< with their requests
  std::deque<variant::Variant> pending;  ///< delivered by the next Service()
  std::vector<std::string> unhandled;    ///< function names of messages rejected or not handled
  std::function<bool()> onService;       ///< runs in each Service(); its result is Service's
  std::vector<Published> published;
  std::vector<Signal> signals;
  bool signalResult = true;  ///< false: signals are refused
  /// Id of the request being handled, the only one that can be answered, once. Set by Service() and
  /// by tests that call a handler directly.
  std::optional<std::uint64_t> handling;
};

/// The configuration store. Changes reach `values` in a close() that stores.
struct ConfigStore {
  std::map<std::string, std::string> values;
  bool initResult = true;
  bool closeResult = true;
  std::string failingGet;  ///< key whose get() fails
  std::string failingSet;  ///< key whose set() fails
};

/// The accounts, as the password library sees them.
struct Accounts {
  std::map<std::string, std::string>
      hashes;  ///< by user, as made by generateHash(); "!" in front locks
  int readResult = 0;
  std::vector<int> authenticateResults;  ///< results of the next calls, in order; then 0
  bool lockResult = true;
  bool saltResult = true;  ///< false: generateSalt() returns ""
  unsigned salts = 0;      ///< number of salts generated; the n-th is "salt<n>"
};

struct Button {
  bool initResult = true;
  bool serviceResult = true;
  std::function<void()> onService;
  gpio::IButtonEventsObserver* observer = nullptr;  ///< as given to init()
};

struct Platform {
  /// Events of all parts, in order: "Ipc::Init kova_ctlserver", "run /bin/cfgmtd -c", "sleep 10",
  /// ...
  std::vector<std::string> journal;
  std::vector<LogLine> log;
  bool logThrows = false;  ///< the next line throws std::bad_alloc instead
  unsigned repeatsFlushed = 0;

  std::uint64_t nowMs = 1'000'000;
  std::function<void(int)> onSleep;  ///< may throw to leave an endless wait

  /// Program runs, as "PROGRAM ARG ...", in order; also in the journal. A background run with
  /// arguments other than the defaults is marked at its end.
  std::vector<std::string> commands;
  std::vector<CaptureTerms> captures;  ///< of each sysExec
  /// Decides the result of a program; without it every program succeeds silently.
  std::function<ProcessResult(const std::string& command)> onRun;

  /// Programs by process id that runDaemon() started and endDaemon() has not ended.
  std::map<int, std::string> background;
  std::function<void(const std::string& program)> onEndDaemon;

  std::vector<std::string> signalled;  ///< "NAME SIGNAL"
  std::function<bool(const std::string& verb, const std::string& name)> onService;
  std::vector<std::string> notified;  ///< "ready", "alive" to the service manager, without repeats
  bool setTimeZoneResult = true;

  bool crashHandlerResult = true;
  bool cameraInfoResult = true;
  variant::Variant cameraInfo;  ///< what CameraInfo::Init() reads

  Statistics stats;
  Bus bus;
  ConfigStore config;
  Accounts accounts;
  Button button;

  /// Ends an endless wait: after this many sleeps sleepMs() throws EndlessWait.
  int sleepsLeft = 10'000;

  /// Whether a log line of exactly this level and text was written.
  bool logged(int level, const std::string& text) const;
  /// The texts of the log lines.
  std::vector<std::string> logTexts() const;
  /// "LEVEL UNIT.FUNCTION: TEXT" of each log line.
  std::vector<std::string> logLines() const;
  void note(const std::string& event) { journal.push_back(event); }
};

/// The one platform that the fakes of this process work on.
Platform& platform();

/// Resets the platform: everything succeeds, all records are empty.
void reset();

/// Thrown by a sleep of a program that only waits.
struct EndlessWait {};

/// Thrown in place of the process's end by kova::utils::forceCrash().
struct ForcedCrash {};

}  // namespace kova::fakes
