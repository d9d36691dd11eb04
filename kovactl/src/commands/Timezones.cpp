#include "Timezones.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string_view>

#include "../BusDiagnosis.h"
#include "../Command.h"
#include "../Output.h"
#include "../Remote.h"
#include "../Suggestion.h"
#include "../Text.h"

namespace kova::ctl {
namespace {

namespace fs = std::filesystem;

// The folder also holds other files; a zone begins with the magic number of RFC 8536.
bool isZone(const fs::path& file) {
  std::array<char, 4> start{};
  std::ifstream stream(file, std::ios::binary);
  stream.read(start.data(), start.size());
  return stream && std::string_view(start.data(), start.size()) == "TZif";
}

// Not zones: copies of all zones with other leap-second rules, and the machine's default zone.
bool isAlias(const fs::path& name) {
  return name == "posix" || name == "right" || name == "localtime" || name == "posixrules";
}

bool contains(const std::string& zone, const std::string& part) {
  return part.empty() || strcasestr(zone.c_str(), part.c_str()) != nullptr;
}

ExitStatus listZones(const Options& options, const std::vector<std::string>& parts) {
  warnOfLocal("timezones", kZoneFolder);
  std::vector<std::string> zones = installedZones();
  if (zones.empty()) {
    return fail(ExitStatus::Local, std::string("no time zones found in ") + kZoneFolder +
                                       ": run kovactl on the camera or install tzdata");
  }
  variant::Variant list = variant::Variant::Array{};
  std::string text;
  for (const std::string& zone : zones) {
    if (std::ranges::all_of(parts, [&](const std::string& part) { return contains(zone, part); })) {
      list.pushToArray(zone);
      text += zone + "\n";
    }
  }
  return text.empty() && !options.json
             ? fail(ExitStatus::Usage, "no time zone contains \"" + parts.front() +
                                           "\": \"kovactl timezones\" lists all")
             : present(options, list, text);
}

}  // namespace

std::vector<std::string> installedZones() {
  std::vector<std::string> zones;
  std::error_code error;
  fs::recursive_directory_iterator entry(kZoneFolder, error);
  for (; !error && entry != fs::recursive_directory_iterator(); entry.increment(error)) {
    std::error_code ignored;
    if (entry.depth() == 0 && isAlias(entry->path().filename())) {
      entry.disable_recursion_pending();
    } else if (entry->is_regular_file(ignored) && isZone(entry->path())) {
      zones.push_back(entry->path().lexically_relative(kZoneFolder).string());
    }
  }
  std::ranges::sort(zones);
  return zones;
}

std::string doubtAboutZone(const std::string& zone) {
  const std::vector<std::string> zones = installedZones();
  if (zones.empty() || std::ranges::binary_search(zones, zone)) {
    return "";
  }
  return notFound("time zone", zone, zones) + " (\"kovactl timezones\" lists them)";
}

Action setUpTimezones(CommandLine& line) {
  auto parts = std::make_shared<std::vector<std::string>>();
  line.arguments("PART", *parts, "List only names that contain this, ignoring case");
  line.footer("Lists the time zones in " + std::string(kZoneFolder) +
              " of the local machine or, with --host, of the remote camera.");
  return [parts](const Options& options) {
    std::vector<std::string> words{"timezones"};
    words.insert(words.end(), parts->begin(), parts->end());
    return options.host.empty() ? listZones(options, *parts) : runThere(options, words);
  };
}

}  // namespace kova::ctl
