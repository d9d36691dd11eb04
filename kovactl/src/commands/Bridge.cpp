#include <signal.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

#include "../BusDiagnosis.h"
#include "../Command.h"
#include "../Relay.h"
#include "../Remote.h"
#include "../Terminal.h"
#include "kova/utils/UniqueFd.h"

namespace kova::ctl {
namespace {

constexpr time_t kConnectS = 5;  // bounds connect(), which blocks while the backlog is full

// Decodes a value of a D-Bus address; false if it has an invalid escape.
bool unescape(std::string_view text, std::string& value) {
  for (std::size_t at = 0; at < text.size(); ++at) {
    if (text[at] != '%') {
      value += text[at];
      continue;
    }
    const std::string_view digits = text.substr(at + 1, 2);
    unsigned char byte = 0;
    const auto parsed = std::from_chars(digits.data(), digits.data() + digits.size(), byte, 16);
    if (parsed.ec != std::errc() || parsed.ptr != digits.data() + 2) {
      return false;
    }
    value += static_cast<char>(byte);
    at += 2;
  }
  return true;
}

// The socket name in "unix:path=..." or "unix:abstract=...", in the form of sun_path in unix(7).
bool socketName(std::string_view address, std::string& name) {
  constexpr std::string_view kPath = "unix:path=";
  constexpr std::string_view kAbstract = "unix:abstract=";
  const bool abstract = address.starts_with(kAbstract);
  if (!abstract && !address.starts_with(kPath)) {
    return false;
  }
  address.remove_prefix(abstract ? kAbstract.size() : kPath.size());
  name = abstract ? std::string(1, '\0') : "";
  return unescape(address.substr(0, address.find_first_of(",;")), name) &&
         name.size() > (abstract ? 1U : 0U);
}

// Connects; on failure `errno` says why.
utils::UniqueFd connectTo(const std::string& name) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (name.size() >= sizeof address.sun_path) {
    errno = ENAMETOOLONG;
    return {};
  }
  std::ranges::copy(name, address.sun_path);
  utils::UniqueFd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  const timeval patience{kConnectS, 0};
  setsockopt(fd.get(), SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof patience);
  const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size() +
                                             (name.starts_with('\0') ? 0 : 1));
  if (connect(fd.get(), reinterpret_cast<const sockaddr*>(&address), length) != 0) {
    return {};
  }
  return fd;
}

std::string explainConnect(const std::string& address, int error) {
  switch (error) {
    case ENOENT:
    case ENOTDIR:
    case ECONNREFUSED:
      return "no bus at " + address +
             ": \"sv status kova_bus\" (systemd: \"systemctl status kova-bus\") shows whether it "
             "runs";
    case EACCES:
    case EPERM:
      return explainDenial().empty() ? std::strerror(error) : explainDenial();
    default:
      return "cannot connect to " + address + ": " + std::strerror(error);
  }
}

ExitStatus bridge(const Options& options) {
  if (!options.host.empty()) {
    return fail(ExitStatus::Usage, "--host runs \"kovactl bridge\" on the camera by itself");
  }
  if (inputIsTerminal()) {
    return fail(ExitStatus::Usage, "this is for programs: use --host on the other machine");
  }
  const std::string address = busAddress();
  std::string name;
  if (!socketName(address, name)) {
    return fail(ExitStatus::Usage,
                "\"" + address + "\" is not the address of a socket: write unix:path=FILE");
  }
  const utils::UniqueFd bus = connectTo(name);
  if (!bus) {
    return fail(ExitStatus::Unreachable, explainConnect(address, errno));
  }
  signal(SIGPIPE, SIG_IGN);
  return relay(STDIN_FILENO, STDOUT_FILENO, bus.get());
}

}  // namespace

Action setUpBridge(CommandLine& line) {
  line.footer(
      "Connects standard input and output with the bus, for --host on another machine and for "
      "other D-Bus clients (unixexec:). Ends when either side closes.");
  return bridge;
}

Action setUpSsh(CommandLine& line) {
  line.footer("Becomes the ssh of a connection to --host.");
  return [](const Options& options) { return becomeSsh(options.host); };
}

}  // namespace kova::ctl
