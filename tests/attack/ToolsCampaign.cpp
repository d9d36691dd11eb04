#include <algorithm>
#include <csignal>
#include <functional>
#include <optional>

#include "BusClient.h"
#include "Campaigns.h"
#include "HostProcess.h"
#include "Manager.h"
#include "RawServer.h"
#include "Transfers.h"

namespace kova::attack {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using system_test::Append;

// Added to a bound: time to start, end and answer.
constexpr seconds kToolGrace(5);
constexpr unsigned kSupportMs = 3000;
constexpr char kBoard[] = "42264";

/// A device tool, what makes the control server run it, and how long it may block the server.
struct Tool {
  const char* name;
  enum Trigger { Save, BootSound, Name, Check, Flash, Support } trigger;
  seconds bound;
};
const std::vector<Tool> kTools = {
    {"cfgmtd", Tool::Save, seconds(60)},
    {"fw_setenv", Tool::BootSound, seconds(15)},
    {"kova_cmd_apply_camera_name.sh", Tool::Name, seconds(15)},
    {"fwupdate.real", Tool::Check, seconds(60)},
    {"fwupdate", Tool::Flash, seconds(1800)},
    {"support", Tool::Support, milliseconds(kSupportMs + 999) / seconds(1) * seconds(1)},
};

/// One way to misbehave, as a setting of the camera's fake tools.
struct Trick {
  const char* setting;
  std::string value;
  bool endless;  ///< only the bound ends it
};

class Tools : public Campaign {
 public:
  explicit Tools(Attack& attack) : attack_(attack), requester_(attack.camera()) {
    makeImage();
    drawHangs();
  }

  void round() override {
    if (std::optional<std::pair<Tool, Trick>> hang = nextHang()) {
      play(hang->first, hang->second);
    } else {
      Random& random = attack_.random();
      play(random.pick(kTools), passing());
    }
  }

  void finish() override {
    const std::string saved =
        call(system_test::request("SaveToFlash", {{"sync", system_test::flag(true)}}), seconds(60));
    attack_.expect(saved == "status 0" || saved == "taken", "the tools are run again afterwards",
                   "SaveToFlash: " + saved);
    expectTransfersWork(attack_, requester_);
  }

 private:
  void makeImage() {
    const std::filesystem::path file = attack_.camera().root().parent_path() / "image";
    const system_test::Result made =
        system_test::run(KOVA_MKFIRMWARE, {file, "--board", kBoard, "--version", "9.9"});
    if (made.status != 0) {
      throw std::runtime_error("no firmware image: " + made.err);
    }
    image_ = system_test::readFile(file);
  }

  /// The longest hang that fits in the remaining time; each is used once.
  std::optional<std::pair<Tool, Trick>> nextHang() {
    const auto fits = [&](const auto& each) { return each.first.bound < attack_.left(); };
    const auto found = std::ranges::find_if(hangs_, fits);
    if (found == hangs_.end()) {
      return std::nullopt;
    }
    const auto next = *found;
    hangs_.erase(found);
    return next;
  }

  void drawHangs() {
    for (const Tool& tool : kTools) {
      for (const Trick& trick : {Trick{"sleep", "7200", true}, Trick{"flood", "and on\n", true}}) {
        const std::size_t place = attack_.random().below(hangs_.size() + 1);
        hangs_.insert(hangs_.begin() + static_cast<std::ptrdiff_t>(place), {tool, trick});
      }
    }
    std::ranges::stable_sort(hangs_, std::greater(),
                             [](const auto& each) { return each.first.bound; });
  }

  Trick passing() {
    Random& random = attack_.random();
    const std::vector<std::string> statuses = {"1", "2", "77", "126", "127", "255"};
    const std::vector<std::string> signals = {"TERM", "KILL", "SEGV", "ABRT", "HUP", "PIPE"};
    switch (random.below(5)) {
      case 0:
        return {"exit", random.pick(statuses), false};
      case 1:
        return {"kill", random.pick(signals), false};
      case 2:
        return {"stdout", random.bytes(random.below(300'000)), false};
      case 3:
        return {"stderr", random.bytes(random.below(300'000)), false};
      default:
        return {"linger", "3", false};
    }
  }

  void play(const Tool& tool, const Trick& trick) {
    const std::string label = std::string(tool.name) + ", " + trick.setting + " " +
                              (trick.value.size() > 20 ? "..." : trick.value);
    attack_.act(label);
    attack_.camera().misbehave(tool.name, trick.setting, trick.value);
    // A successful flash sends no event to wait for, so let the tool fail.
    if (tool.trigger == Tool::Flash && !trick.endless) {
      attack_.camera().misbehave(tool.name, "exit", "1");
    }
    attack_.allow(tool.bound + kToolGrace);
    trigger(tool, label);
    attack_.camera().behave(tool.name);
    if (trick.endless) {
      expectGone(tool, label);
    }
    attack_.allowAsUsual();
  }

  void trigger(const Tool& tool, const std::string& label) {
    using system_test::request;
    const std::string mark = std::to_string(attack_.random().number());
    switch (tool.trigger) {
      case Tool::Save:
        return expectAnswer(request("SaveToFlash", {{"sync", system_test::flag(true)}}), tool,
                            label);
      case Tool::BootSound:
        return expectAnswer(
            request("ChangeDeviceSettings", {{"soundOnBoot", system_test::flag(true)}}), tool,
            label);
      case Tool::Name:
        return expectAnswer(request("ChangeDeviceSettings", {{"name", system_test::text(mark)}}),
                            tool, label);
      case Tool::Check:
        return expectEvent("no image " + mark, tool, label);
      case Tool::Flash:
        return expectEvent(image_, tool, label);
      case Tool::Support:
        return expectSupport(tool, label);
    }
  }

  std::string call(const Append& body, seconds bound) const {
    system_test::BusClient client(attack_.camera().busAddress());
    client.post(body);
    system_test::eventually(
        [&] {
          client.pump(5);
          return client.outstanding() == 0;
        },
        bound + kToolGrace);
    return client.outcomes().empty() ? "" : client.outcomes().begin()->first;
  }

  void expectAnswer(const Append& body, const Tool& tool, const std::string& label) {
    const std::string outcome = call(body, tool.bound);
    attack_.expect(outcome.starts_with("status ") || outcome == "taken",
                   "a tool keeps a request no longer than its bound", label + ": " + outcome);
  }

  void expectEvent(const std::string& content, const Tool& tool, const std::string& label) {
    const engine::RawServer server(engine::answering(engine::okResponse(content)));
    const std::uint64_t id = requester_.ask({{"uri", server.uri()}, {"timeoutMs", 2'000'000U}});
    const std::string outcome = requester_.outcome(id, tool.bound + kToolGrace);
    attack_.expect(outcome.starts_with("FW_"), "a tool keeps an update no longer than its bound",
                   label + ": " + outcome);
  }

  /// An archive that does get generated is uploaded, which no event reports.
  void expectSupport(const Tool& tool, const std::string& label) {
    const engine::RawServer server(engine::answering(engine::okResponse("")));
    const std::uint64_t id =
        requester_.ask({{"what", "supportInfo"}, {"uri", server.uri()}, {"timeoutMs", kSupportMs}});
    const bool over = system_test::eventually(
        [&] {
          requester_.pump(5);
          return !server.requests().empty() || !requester_.outcomes(id).empty();
        },
        tool.bound + kToolGrace);
    attack_.expect(over, "a generator keeps its request no longer than its time", label);
    if (attack_.serves()) {
      requester_.settle();  // the next request would take over the task
    }
  }

  /// Expects that the bound has ended the tool; ends it otherwise, so that the campaign can go on.
  void expectGone(const Tool& tool, const std::string& label) {
    constexpr std::size_t kNameLength = 15;  // TASK_COMM_LEN - 1
    const std::string name = std::string(tool.name).substr(0, kNameLength);
    std::vector<pid_t> left;
    const bool gone = system_test::eventually(
        [&] { return (left = system_test::processesOf(attack_.camera(), name)).empty(); },
        kToolGrace);
    attack_.expect(gone, "a tool that exceeds its bound is ended", label);
    for (const pid_t pid : left) {
      system_test::HostProcess(pid).signal(SIGKILL);
    }
  }

  Attack& attack_;
  system_test::Requester requester_;
  std::string image_;
  std::vector<std::pair<Tool, Trick>> hangs_;
};

}  // namespace

std::unique_ptr<Campaign> makeTools(Attack& attack) {
  return std::make_unique<Tools>(attack);
}

}  // namespace kova::attack
