#include <array>
#include <future>
#include <set>

#include "BusClient.h"
#include "Manager.h"
#include "Tracer.h"
#include "TransferRig.h"

namespace kova::system_test {
namespace {

namespace fs = std::filesystem;

constexpr unsigned kRebootEvery = 7;
constexpr unsigned kDownloadCalls = 12;

/// The installed logo and its checksum file in an /etc.
struct Installed {
  // The flash's /etc is a link that a save replaces: resolve it once for both files.
  explicit Installed(const fs::path& etc) {
    const fs::path folder = fs::weakly_canonical(etc) / "persistent";
    logo = readFile(folder / "user_logo");
    checksum = readFile(folder / "user_logo.md5");
  }

  std::string logo;
  std::string checksum;
};

/// Which logo each of the two files belongs to: "old new" for the old logo with the new checksum,
/// "old none" for the old logo without one.
std::string describe(const Installed& found, const std::string& before, const std::string& after) {
  const auto side = [&](const std::string& text, const std::string& old, const std::string& fresh) {
    return text.empty() ? "none" : text == old ? "old" : text == fresh ? "new" : "broken";
  };
  return std::string(side(found.logo, before, after)) + " " +
         side(found.checksum, md5(before), md5(after));
}

/// Installs different logos and kills the control server during each installation.
class Victim {
 public:
  explicit Victim(unsigned number) : number_(number) { install(next()); }

  void killDuringDownload(unsigned call) { kill(call, nullptr); }
  /// @return whether there was such a call after the download
  bool killDuringInstallation(unsigned call) {
    return kill(call, [this] {
      std::error_code none;
      return fs::file_size(root() / "tmp/user_logo", none) == present_.size() && !none;
    });
  }

  const Camera& camera() const { return camera_; }
  /// Every state of the live /etc after a kill.
  const std::set<std::string>& states() const { return states_; }

 private:
  fs::path root() const { return camera_.root(); }
  Installed live() const { return Installed(root() / "etc"); }
  Installed flashed() const { return Installed(camera_.flash() / "etc"); }

  std::string next() {
    previous_ = present_;
    return present_ =
               picture(16, 16, 'k') + std::to_string(number_) + "-" + std::to_string(++count_);
  }

  static Append put(const engine::RawServer& server, const std::string& logo) {
    return request("PutRequest", {{"what", text("logo")},
                                  {"uri", text(server.uri())},
                                  {"hash", text(md5(logo))},
                                  {"from", text("client.nobody")},
                                  {"timeoutMs", value('u', 20'000U)}});
  }

  /// Installs a logo and waits until it is in flash.
  void install(const std::string& logo) {
    const PlainServer server(logo);
    EXPECT_EQ(BusClient(camera_.busAddress()).call(put(server, logo)), "taken");
    EXPECT_TRUE(eventually([&] { return describe(flashed(), "", logo) == "new new"; },
                           std::chrono::seconds(30)));
    EXPECT_EQ(live().logo, logo);
  }

  bool kill(unsigned call, const std::function<bool()>& started) {
    SCOPED_TRACE("killed at call " + std::to_string(call));
    const std::string logo = next();
    const bool killed = killDuring(logo, call, started);
    if (!killed) {
      EXPECT_EQ(describe(flashed(), previous_, logo), "new new");
      return false;
    }
    expectWhole();
    if (count_ % kRebootEvery == 0) {
      reboot();
    }
    EXPECT_TRUE(camera_.waitForService());
    install(next());  // the next installation succeeds whatever the kill left
    return true;
  }

  bool killDuring(const std::string& logo, unsigned call, const std::function<bool()>& started) {
    const PlainServer server(logo);
    BusClient client(camera_.busAddress());
    const auto begin = [&] {
      client.post(put(server, logo));
      client.pump();
    };
    // A request sent once the logo is in flash is answered after the end of the installation.
    bool last = false;
    const auto finished = [&] {
      client.pump();
      if (!last && flashed().logo == logo) {
        client.post(request("StopService", {{"service", text("")}}));
        last = true;
      }
      return last && client.outstanding() == 0;
    };
    return killAtCall(controlServer(camera_).pid(), call, begin, finished, started);
  }

  /// The flash, which a reboot restores, holds a logo with its own checksum; the live logo may lack
  /// a checksum, but never has another's.
  void expectWhole() {
    const std::string saved = describe(flashed(), previous_, present_);
    EXPECT_TRUE(saved == "old old" || saved == "new new") << saved;
    const std::string now = describe(live(), previous_, present_);
    EXPECT_THAT(now, testing::AnyOf("old old", "old none", "new none", "new new"));
    states_.insert(now + ", in flash " + saved);
  }

  void reboot() {
    const int boot = camera_.boots();
    EXPECT_TRUE(camera_.waitForService());
    ASSERT_EQ(camera_.exec({"/usr/bin/reboot"}).status, 0);
    ASSERT_TRUE(camera_.waitForBoot(boot + 1));
    const std::string now = describe(live(), previous_, present_);
    EXPECT_TRUE(now == "old old" || now == "new new") << now;
  }

  Camera camera_;
  unsigned number_;
  unsigned count_ = 0;
  std::string previous_;
  std::string present_;
  std::set<std::string> states_;
};

/// Spreads the calls over several cameras: runit restarts a service only after a second, so that a
/// single camera would mostly wait.
TEST(KillPutSystem, KilledPutLeavesLogoWithItsChecksum) {
  constexpr unsigned kCameras = 3;
  std::array<std::unique_ptr<Victim>, kCameras> victims;
  for (unsigned i = 0; i < kCameras; ++i) {
    victims[i] = std::make_unique<Victim>(i);
  }
  if (!mayTrace(controlServer(victims[0]->camera()).pid())) {
    GTEST_SKIP() << "the control server cannot be traced";
  }
  std::array<std::future<unsigned>, kCameras> ends;
  for (unsigned i = 0; i < kCameras; ++i) {
    ends[i] = std::async(std::launch::async, [&victim = *victims[i], i] {
      for (unsigned call = i + 1; call <= kDownloadCalls; call += kCameras) {
        victim.killDuringDownload(call);
      }
      unsigned call = i + 1;
      while (!testing::Test::HasFailure() && victim.killDuringInstallation(call)) {
        call += kCameras;
      }
      return call;
    });
  }
  std::set<std::string> states;
  for (unsigned i = 0; i < kCameras; ++i) {
    // It runs two programs, creates or moves three files, and sends an event and log lines.
    EXPECT_GT(ends[i].get(), 9U);
    states.insert(victims[i]->states().begin(), victims[i]->states().end());
  }
  EXPECT_THAT(states,
              testing::IsSupersetOf({"old old, in flash old old", "old none, in flash old old",
                                     "new none, in flash old old", "new new, in flash old old",
                                     "new new, in flash new new"}))
      << "a kill on each side of the removal, of both renames and of the save";
}

}  // namespace
}  // namespace kova::system_test
