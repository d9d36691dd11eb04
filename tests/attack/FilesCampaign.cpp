#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>

#include "Campaigns.h"
#include "RawServer.h"
#include "Transfers.h"
#include "kova/utils/UniqueFd.h"

namespace kova::attack {
namespace {

namespace fs = std::filesystem;
using std::chrono::milliseconds;

constexpr char kSecret[] = "SECRET-that-must-not-leave";
constexpr char kForeign[] = "FOREIGN-what-a-stranger-wrote";
constexpr char kUntouched[] = "nobody writes here\n";
constexpr std::size_t kFormKiB = 4;  // overhead of the form around the file
constexpr unsigned kTimeoutMs = 2000;
constexpr milliseconds kArrivalGrace(10'000);

/// A path that the camera reads or writes for a request.
struct Target {
  const char* what;  // "" is a firmware update
  const char* path;
  std::size_t maximum;  // of an upload, 0 for a download
};
constexpr std::array<Target, 7> kTargets = {{{"snapshot", "/tmp/snap.jpeg", 200'000},
                                             {"eventSnapshot", "/tmp/motionsnap_7.jpg", 200'000},
                                             {"eventHeatmap", "/tmp/heatmap_7.png", 65'536},
                                             {"supportInfo", "/tmp/supportinfo.tar", 10'485'760},
                                             {"logo", "/tmp/user_logo", 0},
                                             {"sound", "/tmp/user_sound", 0},
                                             {"", "/tmp/fwupdate.bin", 0}}};

/// Checks uploads for content that must not leave the camera; serves a marker to downloads.
class Sink {
 public:
  explicit Sink(Attack& attack) : attack_(attack) {}

  std::string uri() const { return server_.uri("/" + std::to_string(attack_.random().number())); }
  bool uploaded() const { return uploads_ > 0; }
  void begin(const std::string& label, std::size_t maximum) {
    label_ = label;
    maximum_ = maximum;
    uploads_ = 0;
  }

 private:
  void serve(engine::Connection& connection) {
    if (!connection.readRequest()) {
      return;
    }
    const std::string& body = connection.request().body;
    const bool upload = connection.request().head.starts_with("POST");
    attack_.expect(body.find(kSecret) == std::string::npos, "no secret leaves the camera", label_);
    attack_.expect(body.find(kForeign) == std::string::npos, "what a stranger owns is not sent",
                   label_);
    attack_.expect(!upload || body.size() <= maximum_ + kFormKiB * 1024,
                   "an upload stays within its maximum",
                   label_ + ": " + std::to_string(body.size()) + " bytes");
    connection.send(engine::okResponse(upload ? "" : "written by the attack"));
    uploads_ += upload ? 1 : 0;
  }

  Attack& attack_;
  std::string label_;
  std::size_t maximum_ = 0;
  std::atomic<unsigned> uploads_ = 0;
  engine::RawServer server_{[this](auto& connection) { serve(connection); }};  // uses the rest
};

class Files : public Campaign {
 public:
  explicit Files(Attack& attack) : attack_(attack), requester_(attack.camera()) {
    const std::string pem = system_test::readFile(attack_.inside("/etc/persistent/server.pem"));
    for (const char* path : {"/etc/persistent/server.pem", "/etc/shadow", "/tmp/secret"}) {
      system_test::writeFile(attack_.inside(path), std::string(kSecret) + "\n" + pem);
    }
    for (const char* path : kVictims) {
      system_test::writeFile(attack_.inside(path), kUntouched);
    }
  }

  void round() override {
    Sink sink(attack_);
    const std::size_t drawn = deck_.draw(attack_.random());
    const Target& target = kTargets[drawn % kTargets.size()];
    const Plant& plant = kPlants[drawn / kTargets.size()];
    const bool swapping = attack_.random().oneIn(3);
    const std::string label =
        std::string(plant.name) + " as " + target.path + (swapping ? ", again and again" : "");
    attack_.act(label);
    sink.begin(label, target.maximum);
    put(plant, target);
    std::atomic<bool> over = false;
    std::thread swapper([&] {
      while (swapping && !over) {
        put(plant, target);
        std::this_thread::sleep_for(milliseconds(1));
        putRegular(target);
      }
    });
    transfer(target, sink, label);
    over = true;
    swapper.join();
    clear(target);
    if (attack_.serves()) {
      requester_.settle();
    }
    expectNothingWritten(label);
  }

  void finish() override { expectTransfersWork(attack_, requester_); }

 private:
  static constexpr std::array<const char*, 2> kVictims = {"/etc/victim", "/tmp/victim"};
  static constexpr char kCreated[] = "/etc/created";

  struct Plant {
    const char* name;
    void (*make)(const fs::path& folder, const fs::path& path);
  };
  static const std::vector<Plant> kPlants;

  /// Creates it under another name and renames it, so that it appears atomically.
  void put(const Plant& plant, const Target& target) const {
    const fs::path path = attack_.inside(target.path);
    const fs::path beside = path.string() + ".planted";
    std::error_code unable;  // the file system may not support this kind of file
    fs::remove_all(beside, unable);
    plant.make(path.parent_path(), beside);
    fs::rename(beside, path, unable);
  }
  void putRegular(const Target& target) const {
    const fs::path path = attack_.inside(target.path);
    const fs::path beside = path.string() + ".regular";
    std::error_code ignored;  // a folder may be in the way
    system_test::writeFile(beside, "a picture");
    fs::rename(beside, path, ignored);
  }

  /// Also releases a process that blocks on a planted FIFO.
  void clear(const Target& target) const {
    const fs::path path = attack_.inside(target.path);
    std::error_code ignored;
    if (fs::is_fifo(fs::symlink_status(path, ignored))) {
      const utils::UniqueFd bothEnds(open(path.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC));
    }
    for (const char* suffix : {"", ".planted", ".regular"}) {
      fs::remove_all(path.string() + suffix, ignored);
    }
  }

  void transfer(const Target& target, const Sink& sink, const std::string& label) {
    const std::uint64_t id =
        requester_.ask({{"what", target.what},
                        {"uri", sink.uri()},
                        {"filename", fs::path(target.path).filename().string()},
                        {"hash", std::string(32, '0')},
                        {"timeoutMs", kTimeoutMs}});
    const auto end = std::chrono::steady_clock::now() + milliseconds(kTimeoutMs) + kArrivalGrace;
    const auto isOver = [&] { return sink.uploaded() || !requester_.outcomes(id).empty(); };
    while (!isOver() && attack_.serves() && std::chrono::steady_clock::now() < end) {
      requester_.pump(5);
    }
    attack_.expect(isOver() || !attack_.serves(), "every transfer ends in its time", label);
  }

  void expectNothingWritten(const std::string& label) const {
    constexpr char kNothing[] = "nothing is written through what was planted";
    for (const char* victim : kVictims) {
      attack_.expect(system_test::readFile(attack_.inside(victim)) == kUntouched, kNothing,
                     label + ": " + victim);
    }
    attack_.expect(!fs::exists(attack_.inside(kCreated)), kNothing, label + ": " + kCreated);
  }

  Attack& attack_;
  system_test::Requester requester_;
  Deck deck_{kTargets.size() * kPlants.size()};
};

void linkTo(const char* target, const fs::path& path) {
  std::error_code ignored;
  fs::create_symlink(target, path, ignored);
}

// Link targets resolve in the camera's root, not the host's.
const std::vector<Files::Plant> Files::kPlants = {
    {"a link to the private key",
     [](const fs::path&, const fs::path& path) { linkTo("/etc/persistent/server.pem", path); }},
    {"a link to the shadow file",
     [](const fs::path&, const fs::path& path) { linkTo("/etc/shadow", path); }},
    {"a link to a file to write",
     [](const fs::path&, const fs::path& path) { linkTo("/etc/victim", path); }},
    {"a link to nothing",
     [](const fs::path&, const fs::path& path) { linkTo("/etc/created", path); }},
    {"a link to itself", [](const fs::path&, const fs::path& path) { linkTo(path.c_str(), path); }},
    {"a link to an endless device",
     [](const fs::path&, const fs::path& path) { linkTo("/dev/zero", path); }},
    {"a hard link to a secret",
     [](const fs::path& folder, const fs::path& path) {
       std::error_code ignored;
       fs::create_hard_link(folder / "secret", path, ignored);
     }},
    {"a hard link to a file to write",
     [](const fs::path& folder, const fs::path& path) {
       std::error_code ignored;
       fs::create_hard_link(folder / "victim", path, ignored);
     }},
    {"a pipe", [](const fs::path&, const fs::path& path) { mkfifo(path.c_str(), 0666); }},
    {"a device",
     [](const fs::path&, const fs::path& path) {
       constexpr dev_t kZero = 0x105;  // character device 1:5
       if (mknod(path.c_str(), S_IFCHR | 0666, kZero) != 0) {
         linkTo("/dev/zero", path);
       }
     }},
    {"a folder",
     [](const fs::path&, const fs::path& path) { fs::create_directories(path / "deeper"); }},
    {"a stranger's file",
     [](const fs::path&, const fs::path& path) {
       constexpr uid_t kNobody = 65534;
       system_test::writeFile(path, kForeign);
       if (chown(path.c_str(), kNobody, kNobody) != 0) {
         fs::remove(path);
       }
     }},
    {"a large file",
     [](const fs::path&, const fs::path& path) {
       system_test::writeFile(path, "");
       fs::resize_file(path, 11UL * 1024 * 1024);  // more than any maximum
     }},
};

}  // namespace

std::unique_ptr<Campaign> makeFiles(Attack& attack) {
  return std::make_unique<Files>(attack);
}

}  // namespace kova::attack
