#include "Camera.h"

#include <stdlib.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "kova/utils/Process.h"

namespace kova::system_test {

namespace fs = std::filesystem;

namespace {

constexpr unsigned kRunTimeoutMs = 120'000;
constexpr unsigned kCaptureKiB = 16 * 1024;
constexpr auto kPoll = std::chrono::milliseconds(10);
constexpr int kLogLines = 15;

}  // namespace

std::string lastLines(const std::string& text, int count) {
  std::size_t begin = text.size();
  for (int lines = 0; lines <= count && begin != std::string::npos && begin > 0; ++lines) {
    begin = text.rfind('\n', begin - 1);
  }
  return begin == std::string::npos || begin == 0 ? text : text.substr(begin + 1);
}

Result run(const std::string& program, const std::vector<std::string>& arguments,
           const std::string& input) {
  Result result{};
  result.status = utils::sysExec(program, arguments, input, result.out, result.err, kRunTimeoutMs,
                                 1000, kCaptureKiB);
  if (result.status != 0 && !result.err.empty()) {
    result.status.explain(", it says: " + result.err);
  }
  return result;
}

bool eventually(const std::function<bool()>& condition, std::chrono::milliseconds limit) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) {
      return false;
    }
    std::this_thread::sleep_for(kPoll);
  }
  return true;
}

std::string readFile(const fs::path& path) {
  std::ifstream file(path, std::ios::binary);
  std::ostringstream content;
  content << file.rdbuf();
  return content.str();
}

void writeFile(const fs::path& path, const std::string& content) {
  fs::create_directories(path.parent_path());
  std::ofstream(path, std::ios::binary) << content;
}

Camera::Camera(const std::string& description) {
  // Short, because the path of a socket has at most 107 bytes.
  char folder[] = "/tmp/kc-XXXXXX";
  if (mkdtemp(folder) == nullptr) {
    throw std::runtime_error("mkdtemp failed");
  }
  folder_ = folder;
  if (!description.empty()) {
    description_ = folder_.string() + ".json";  // the camera's folder must be empty
    writeFile(description_, description);
  }
  std::vector<std::string> arguments = {"start", folder_};
  if (!description_.empty()) {
    arguments.insert(arguments.end(), {"--info", description_});
  }
  const Result result = script(arguments);
  if (result.status != 0) {
    throw std::runtime_error("the camera did not come up: " + result.err);
  }
}

Camera::~Camera() {
  script({"stop", folder_});
  std::error_code ignored;  // best effort
  fs::remove_all(folder_, ignored);
  if (!description_.empty()) {
    fs::remove(description_, ignored);
  }
}

Result Camera::script(std::vector<std::string> arguments, const std::string& input) const {
  // Only once: setenv(3) races with other threads that start programs.
  static const int set = setenv("KOVA_BUILD", KOVA_TEST_BUILD, 1);
  static_cast<void>(set);
  return run(KOVA_CAMERA_SCRIPT, arguments, input);
}

Result Camera::exec(const std::vector<std::string>& command, const std::string& input) const {
  std::vector<std::string> words = execWords(command);
  words.erase(words.begin());
  Result result = script(words, input);
  if (result.status != 0) {
    result.status.explain(", the camera's log ends: " + lastLines(log(), kLogLines));
  }
  return result;
}

std::vector<std::string> Camera::execWords(const std::vector<std::string>& command) const {
  std::vector<std::string> words = {KOVA_CAMERA_SCRIPT, "exec", folder_, "--"};
  words.insert(words.end(), command.begin(), command.end());
  return words;
}

Result Camera::ctl(std::vector<std::string> arguments, const std::string& input) const {
  arguments.insert(arguments.begin(), "kovactl");
  return exec(arguments, input);
}

int Camera::boots() const {
  return std::stoi(readFile(root() / "run/boot_count"));
}

bool Camera::waitForBoot(int number) const {
  return script({"wait", folder_, std::to_string(number)}).status == 0;
}

std::string Camera::pidOf(const std::string& service) const {
  // "run: NAME: (pid 42) 17s" (sv(8))
  const std::string status = exec({"sv", "status", "/etc/service/" + service}).out;
  const auto begin = status.find("(pid ");
  if (!status.starts_with("run:") || begin == std::string::npos) {
    return "";
  }
  return status.substr(begin + 5, status.find(')', begin) - begin - 5);
}

bool Camera::waitForLog(const std::string& text, std::chrono::milliseconds limit) const {
  return eventually([&] { return log().find(text) != std::string::npos; }, limit);
}

void Camera::misbehave(const std::string& tool, const std::string& setting,
                       const std::string& value) {
  writeFile(root() / "run/tools" / tool / setting, value);
}

void Camera::behave(const std::string& tool) {
  fs::remove_all(root() / "run/tools" / tool);
}

void Camera::pressButton(bool pressed) {
  // In place, like a GPIO value: a concurrent reader must not see an empty file.
  std::fstream value(root() / "run/gpio/reset_button/value", std::ios::in | std::ios::out);
  value << (pressed ? '0' : '1') << std::flush;
  if (!value) {
    throw std::runtime_error("the button cannot be moved");
  }
}

}  // namespace kova::system_test
