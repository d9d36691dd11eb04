#pragma once

#include <chrono>
#include <filesystem>
#include <functional>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

namespace kova::system_test {

/// An exit status, which GoogleTest prints together with the reason of a failure.
class ExitStatus {
 public:
  ExitStatus(int value = 0, std::string reason = "") : value_(value), reason_(std::move(reason)) {}
  operator int() const { return value_; }
  void explain(const std::string& reason) { reason_ += reason; }
  friend void PrintTo(const ExitStatus& status, std::ostream* out) {
    *out << status.value_ << status.reason_;
  }

 private:
  int value_;
  std::string reason_;
};

/// How a program ended and what it printed.
struct Result {
  ExitStatus status;
  std::string out;
  std::string err;
};

/// Runs a program to its end; kills it after two minutes.
Result run(const std::string& program, const std::vector<std::string>& arguments,
           const std::string& input = "");

/// Waits until `condition` holds.
/// @return whether it did within `limit`
bool eventually(const std::function<bool()>& condition,
                std::chrono::milliseconds limit = std::chrono::seconds(10));

std::string lastLines(const std::string& text, int count);
std::string readFile(const std::filesystem::path& path);
void writeFile(const std::filesystem::path& path, const std::string& content);

/// A booted virtual camera in a temporary folder; the destructor removes it.
class Camera {
 public:
  /// Boots; throws std::runtime_error with the reason if it does not come up.
  /// @param description device description (JSON) to use instead of the default
  explicit Camera(const std::string& description = "");
  ~Camera();
  Camera(const Camera&) = delete;
  Camera& operator=(const Camera&) = delete;

  /// Runs a command inside; a name without "/" is looked up in the camera's PATH.
  Result exec(const std::vector<std::string>& command, const std::string& input = "") const;
  /// The host command, program path first, that runs `command` inside.
  std::vector<std::string> execWords(const std::vector<std::string>& command) const;
  /// Runs kovactl inside.
  Result ctl(std::vector<std::string> arguments, const std::string& input = "") const;
  /// Runs a shell command line inside.
  Result shell(const std::string& line) const { return exec({"sh", "-c", line}); }

  /// The number of the current boot, from 1.
  int boots() const;
  /// Waits until the control server serves in boot `number` or a later one.
  bool waitForBoot(int number) const;
  /// Waits until the control server serves.
  bool waitForService() const { return waitForBoot(0); }
  /// The process id, inside the camera, of a supervised service; "" while it is down.
  std::string pidOf(const std::string& service) const;

  /// The system log. waitForLog() returns whether a text appears in it in time.
  std::string log() const { return readFile(root() / "var/log/messages"); }
  bool waitForLog(const std::string& text,
                  std::chrono::milliseconds limit = std::chrono::seconds(10)) const;
  /// The runs of device tools so far, one per line.
  std::string tools() const { return readFile(root() / "var/log/tools.log"); }

  /// Makes a device tool misbehave from now on: `setting` is one of the files that camera/README.md
  /// describes, for example ("cfgmtd", "exit", "1").
  void misbehave(const std::string& tool, const std::string& setting, const std::string& value);
  void behave(const std::string& tool);

  /// Holds the reset button down, or lets it go.
  void pressButton(bool pressed);

  std::filesystem::path root() const { return folder_ / "root"; }
  std::filesystem::path flash() const { return folder_ / "flash"; }
  /// D-Bus address of the camera's bus, usable by root on the host.
  std::string busAddress() const { return "unix:path=" + (root() / "run/kova/bus").string(); }

 private:
  Result script(std::vector<std::string> arguments, const std::string& input = "") const;

  std::filesystem::path folder_;
  std::string description_;
};

}  // namespace kova::system_test
