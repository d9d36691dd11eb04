#include "BusDiagnosis.h"

#include <grp.h>
#include <pwd.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "Options.h"
#include "Remote.h"
#include "Suggestion.h"
#include "Text.h"
#include "kova/logger/Logger.h"
#include "kova/utils/UniqueFd.h"

namespace kova::ctl {
namespace {

constexpr std::string_view kDefaultAddress = "unix:path=/run/kova/bus";
constexpr const char* kGroup = "kova";
constexpr const char* kBusStatus =
    "\"sv status kova_bus\" (systemd: \"systemctl status kova-bus\")";

// The commands that add a member to the group and keep it across a change of the password.
std::string joining(const std::string& user) {
  return "run \"adduser " + user + " " + kGroup + " && /usr/libexec/kova_members\" ";
}

// The path of the socket in an address; "" if it has none.
std::string socketPath(const std::string& address) {
  constexpr std::string_view kPrefix = "unix:path=";
  return address.starts_with(kPrefix)
             ? address.substr(kPrefix.size(), address.find_first_of(",;") - kPrefix.size())
             : "";
}

// Tries to connect; returns 0 or the error number.
int connectError(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof address.sun_path) {
    return ENAMETOOLONG;
  }
  std::ranges::copy(path, address.sun_path);
  const utils::UniqueFd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  const auto* generic = reinterpret_cast<const sockaddr*>(&address);
  return connect(fd.get(), generic, sizeof address) == 0 ? 0 : errno;
}

std::string userName() {
  const passwd* user = getpwuid(geteuid());
  return user != nullptr ? user->pw_name : std::to_string(geteuid());
}

bool isListedInGroup(const std::string& user) {
  const group* kova = getgrnam(kGroup);
  for (char** member = kova != nullptr ? kova->gr_mem : nullptr;
       member != nullptr && *member != nullptr; ++member) {
    if (user == *member) {
      return true;
    }
  }
  return false;
}

std::string explainName(const std::string& host, const std::string& endpoint,
                        const std::string& problem) {
  const auto is = [&problem](int error) { return problem.ends_with(std::strerror(error)); };
  if (is(EINVAL)) {
    return "\"" + endpoint + "\" is not a valid endpoint name: choose one such as client.me";
  }
  if (is(EEXIST)) {
    return "the name \"kova." + endpoint + "\" is taken on the bus: choose another";
  }
  if (is(EACCES) || is(EPERM)) {
    return endpoint.starts_with("client.") ? explainDenial(host)
                                           : "only root may use the name \"" + endpoint +
                                                 "\" on the bus: choose one such as client.me";
  }
  return problem;
}

std::string explainSocket(const std::string& path, const std::string& problem) {
  switch (connectError(path)) {
    case ENOENT:
    case ENOTDIR:
      return "no bus at unix:path=" + path + ": run kovactl on the camera (" + kBusStatus +
             " shows whether its bus runs), " +
             "or choose a camera with --host or another bus with --bus";
    case ECONNREFUSED:
      return "no bus listens at unix:path=" + path + ": " + kBusStatus + " shows whether it runs";
    case EACCES:
    case EPERM:
      return explainDenial().empty() ? problem : explainDenial();
    case 0:
      return problem.ends_with(std::strerror(ETIMEDOUT))
                 ? "unix:path=" + path + " accepts connections but does not answer: is it a bus?"
                 : "the bus at unix:path=" + path +
                       " closed the connection: it rejects this user or has too many clients";
    case ENAMETOOLONG:
      return "the socket path " + path + " is too long: at most 107 bytes are possible";
    default:
      return problem;
  }
}

}  // namespace

std::string busAddress() {
  const char* given = std::getenv("KOVA_BUS_ADDRESS");
  return given != nullptr && *given != '\0' ? given : std::string(kDefaultAddress);
}

std::string addressFault(const std::string& address) {
  constexpr std::string_view kTransports[] = {"unix:", "unixexec:", "tcp:", "x-machine-"};
  const bool isAddress = std::ranges::any_of(
      kTransports, [&address](std::string_view start) { return address.starts_with(start); });
  return isAddress ? ""
                   : "\"" + address + "\" is not a bus address: write one such as " +
                         std::string(kDefaultAddress);
}

void warnOfLocal(const std::string& command, const std::string& folder) {
  if (busAddress() != kDefaultAddress) {
    fail(ExitStatus::Ok, "warning: " + command + " reads " + folder +
                             " of this machine, not of the camera at " + busAddress() +
                             ": use --host");
  }
}

std::string explainJoin(const std::string& host, const std::string& endpoint,
                        const std::string& problem) {
  if (problem.find("Unable to own the name") != problem.npos) {
    return explainName(host, endpoint, problem);
  }
  if (!host.empty()) {
    return explainRemote(host, problem);
  }
  const std::string address = busAddress();
  if (const std::string path = socketPath(address); !path.empty()) {
    return explainSocket(path, problem);
  }
  if (problem.empty()) {
    return "unable to join the bus at " + address;
  }
  const std::string fault = addressFault(address);
  return fault.empty() ? problem + ": check the address; kovactl(1) shows examples" : fault;
}

std::string explainDenial(const std::string& host) {
  if (!host.empty()) {
    return "only root and members of the group " + std::string(kGroup) + " may use the bus of " +
           host + ": " + joining("USER") + "there as root";
  }
  if (geteuid() == 0) {
    return "";
  }
  const std::string user = userName();
  const std::string may =
      "only root and members of the group " + std::string(kGroup) + " may use this bus: ";
  return isListedInGroup(user) ? may + "log in again for your membership to take effect"
                               : may + joining(user) + "as root, then log in again";
}

std::string absence(const std::string& endpoint) {
  const std::string text = "\"" + endpoint + "\" is not on the bus";
  const std::vector<std::string> known(kEndpoints.begin(), kEndpoints.end());
  if (std::ranges::find(known, endpoint) != known.end()) {
    return text + ": \"sv status " + endpoint + "\" (systemd: \"systemctl status " + endpoint +
           "\") on the camera shows whether it runs";
  }
  const std::string meant = didYouMean(endpoint, known);
  return text + (meant.empty() ? ": is it running?" : meant);
}

}  // namespace kova::ctl

namespace kova::ctl::library_log {
namespace {

bool printing = false;
std::string problem;

}  // namespace

void verbose(bool on) {
  printing = on;
}

const std::string& lastProblem() {
  return problem;
}

}  // namespace kova::ctl::library_log

namespace kova::logger {

// Replaces the function of the platform logger at link time.
void logInternal(const char*, const char* unit, const char* function, int line, int level,
                 int error, const char* format, ...) {
  namespace log = kova::ctl::library_log;
  const int savedErrno = errno;
  std::array<char, 1024> text{};
  va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(text.data(), text.size(), format, arguments);
  va_end(arguments);
  std::string message = text.data();
  if (error != 0) {
    message += std::string(": ") + std::strerror(error);
  }
  if (log::printing) {
    std::fprintf(stderr, "kovactl: %s.%s:%d: %s\n", unit, function, line,
                 kova::ctl::printable(message).c_str());
  }
  if (level <= LOG_WARNING) {
    log::problem = std::move(message);
  }
  errno = savedErrno;
}

}  // namespace kova::logger
