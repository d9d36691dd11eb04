#include <array>
#include <future>
#include <regex>

#include "BusClient.h"
#include "SharedCamera.h"
#include "SystemCfg.h"
#include "Tracer.h"
#include "kova/utils/Password.h"

namespace kova::system_test {
namespace {

namespace fs = std::filesystem;

constexpr char kOldPassword[] = "admin";
constexpr char kNewPassword[] = "another";
constexpr char kHashKey[] = "users.1.password";
constexpr unsigned kRebootEvery = 8;

/// The parts of the camera's configuration that a change affects.
struct Configuration {
  explicit Configuration(const Camera& camera)
      : cfg(readFile(systemCfg(camera))),
        passwd(readFile(camera.root() / "etc/passwd")),
        rule(readFile(camera.root() / "etc/TZ")),
        zone(fs::read_symlink(camera.root() / "etc/localtime")) {}

  void restore(const Camera& camera) const {
    const fs::path etc = camera.root() / "etc";
    for (const auto& entry : fs::directory_iterator(etc)) {
      const std::string name = entry.path().filename();
      if (name.starts_with(".kova-") || name.starts_with("localtime")) {
        fs::remove(entry.path());
      }
    }
    fs::create_symlink(zone, etc / "localtime");
    writeFile(etc / "TZ", rule);
    writeFile(etc / "passwd", passwd);
    writeFile(etc / "system.cfg", cfg);
  }

  bool operator==(const Configuration&) const = default;

  std::string cfg;
  std::string passwd;
  std::string rule;
  std::string zone;
};

/// A change, and the invariant that must hold wherever the control server was killed during it.
struct Change {
  Append request;
  std::function<void(Camera& camera, const Configuration& before)> expectWhole;
};

std::string call(const Camera& camera, const Append& body) {
  return BusClient(camera.busAddress()).call(body);
}

/// Makes the change and kills the control server at its `point`-th call.
/// @return whether there was such a call; if not, the change has succeeded
bool killDuring(const Camera& camera, const Append& request, unsigned point) {
  BusClient client(camera.busAddress());
  const auto begin = [&] {
    client.post(request);
    client.pump();
  };
  const auto finished = [&] {
    client.pump();
    return client.outstanding() == 0;
  };
  const bool killed = killAtCall(controlServer(camera).pid(), point, begin, finished);
  if (!killed) {
    EXPECT_EQ(client.outcomes().count("status 0"), 1U);
  }
  return killed;
}

void expectServes(const Camera& camera) {
  EXPECT_TRUE(camera.waitForService());
  EXPECT_EQ(call(camera, request("ChangeDeviceSettings")), "status 0");
}

void expectBootsFromIt(Camera& camera) {
  const Configuration saved(camera);
  const int boot = camera.boots();
  ASSERT_EQ(camera.ctl({"save", "--sync"}).status, 0);
  ASSERT_EQ(camera.exec({"/usr/bin/reboot"}).status, 0);
  ASSERT_TRUE(camera.waitForBoot(boot + 1));
  EXPECT_EQ(Configuration(camera), saved);
  expectServes(camera);
}

/// Kills at every `stride`-th call from `first` on, until the change completes.
/// @return the number of calls of the change
unsigned killFrom(Camera& camera, const Change& change, unsigned first, unsigned stride) {
  const Configuration before(camera);
  for (unsigned point = first;; point += stride) {
    SCOPED_TRACE("killed at call " + std::to_string(point));
    const bool killed = killDuring(camera, change.request, point);
    expectServes(camera);
    if (killed && point % kRebootEvery == 0) {
      expectBootsFromIt(camera);
    }
    change.expectWhole(camera, before);
    before.restore(camera);
    if (!killed || testing::Test::HasFailure()) {
      return point - 1;
    }
  }
}

/// Spreads the calls over several cameras: runit restarts a service only after a second, so that a
/// single camera would mostly wait.
class KillPointsSystem : public testing::Test {
 public:
  static void SetUpTestSuite() {
    for (auto& camera : cameras_) {
      camera = std::make_unique<Camera>();
    }
  }
  static void TearDownTestSuite() { cameras_ = {}; }

 protected:
  void SetUp() override {
    ASSERT_NE(cameras_.back(), nullptr);
    if (!mayTrace(controlServer(*cameras_.front()).pid())) {
      GTEST_SKIP() << "the control server cannot be traced";
    }
  }

  /// @return the number of calls of the change
  static unsigned killAtEveryCall(const Change& change) {
    std::array<std::future<unsigned>, kCameras> counts;
    for (unsigned i = 0; i < kCameras; ++i) {
      counts[i] = std::async(std::launch::async,
                             [&, i] { return killFrom(*cameras_[i], change, i + 1, kCameras); });
    }
    unsigned least = ~0U;
    for (auto& count : counts) {
      least = std::min(least, count.get());
    }
    return least;
  }

 private:
  static constexpr unsigned kCameras = 4;
  static inline std::array<std::unique_ptr<Camera>, kCameras> cameras_;
};

TEST_F(KillPointsSystem, SettingsAreWhollyOldOrNew) {
  const auto expectWhole = [](Camera& camera, const Configuration& before) {
    const Configuration now(camera);
    const std::string renamed =
        withSetting(withSetting(withSetting(before.cfg, "resolv.host.1.name", "Front door"),
                                "system.timezone", "Europe/Paris"),
                    "system.region", "US");
    EXPECT_TRUE(now.cfg == before.cfg || now.cfg == renamed) << now.cfg;
    EXPECT_TRUE(now.rule == before.rule || now.rule == "CET-1CEST,M3.5.0,M10.5.0/3\n") << now.rule;
    EXPECT_TRUE(now.zone == before.zone || now.zone == "/usr/share/zoneinfo/Europe/Paris");
    EXPECT_EQ(now.passwd, before.passwd);
  };
  const unsigned calls =
      killAtEveryCall({request("ChangeDeviceSettings", {{"name", text("Front door")},
                                                        {"timezone", text("Europe/Paris")},
                                                        {"region", text("US")}}),
                       expectWhole});
  // At least: create, write, flush and rename system.cfg and TZ; link and rename localtime; start a
  // program, signal another, answer.
  EXPECT_GE(calls, 14U);
}

bool opens(const std::string& hash, const std::string& password) {
  return !hash.empty() && utils::generateHash(password.c_str(), hash) == hash;
}

std::string hashIn(const std::string& passwd) {
  std::smatch parts;
  const std::regex line("admin:([^:\n]+):0:0:Administrator:/etc/persistent:/bin/sh\n");
  return std::regex_match(passwd, parts, line) ? parts[1].str() : "";
}

TEST_F(KillPointsSystem, AccountIsWhollyOldOrNewAndCanBeChanged) {
  const auto expectWhole = [](Camera& camera, const Configuration& before) {
    const Configuration now(camera);
    const std::string hash = hashIn(now.passwd);
    const bool account = now.passwd != before.passwd;
    EXPECT_TRUE(opens(hash, account ? kNewPassword : kOldPassword)) << now.passwd;
    const std::string stored = settingIn(now.cfg, kHashKey);
    EXPECT_EQ(now.cfg, withSetting(before.cfg, kHashKey, stored));
    EXPECT_TRUE(opens(stored, now.cfg != before.cfg ? kNewPassword : kOldPassword)) << now.cfg;
    EXPECT_TRUE(!account || stored == hash) << now.cfg << now.passwd;

    EXPECT_EQ(call(camera, request("ChangeUsernamePassword",
                                   {{"username", text("admin")},
                                    {"passwordOld", text(account ? kNewPassword : kOldPassword)},
                                    {"passwordNew", text("a third")}})),
              "status 0");
    EXPECT_TRUE(opens(hashIn(readFile(camera.root() / "etc/passwd")), "a third"));
    EXPECT_TRUE(opens(settingIn(readFile(systemCfg(camera)), kHashKey), "a third"));
  };
  const unsigned calls =
      killAtEveryCall({request("ChangeUsernamePassword", {{"username", text("admin")},
                                                          {"passwordOld", text(kOldPassword)},
                                                          {"passwordNew", text(kNewPassword)}}),
                       expectWhole});
  // At least: create, write, flush and rename two files, and answer.
  EXPECT_GE(calls, 9U);
}

std::string nameIn(const std::string& passwd) {
  const std::regex line("([^:\n]+):[^:\n]+:0:0:Administrator:/etc/persistent:/bin/sh\n");
  std::smatch parts;
  return std::regex_match(passwd, parts, line) ? parts[1].str() : "";
}

TEST_F(KillPointsSystem, RenamedAccountCanBeChangedAndLockedAgain) {
  const auto expectWhole = [](Camera& camera, const Configuration& before) {
    const Configuration now(camera);
    const std::string name = settingIn(now.cfg, "users.1.name");
    EXPECT_TRUE(name == "admin" || name == "chief") << now.cfg;
    EXPECT_EQ(name == "admin", now.passwd == before.passwd);
    EXPECT_EQ(nameIn(now.passwd), name);

    EXPECT_EQ(call(camera, request("DisableUsernamePassword")), "status 0");
    const std::string locked = readFile(camera.root() / "etc/passwd");
    EXPECT_TRUE(locked.starts_with(name + ":!")) << locked;
    EXPECT_EQ(call(camera, request("EnableUsernamePassword")), "status 0");
    const std::string password = name == "admin" ? kOldPassword : kNewPassword;
    EXPECT_EQ(call(camera, request("ChangeUsernamePassword", {{"username", text("third")},
                                                              {"passwordOld", text(password)},
                                                              {"passwordNew", text("a third")}})),
              "status 0");
    EXPECT_EQ(nameIn(readFile(camera.root() / "etc/passwd")), "third");
  };
  const unsigned calls =
      killAtEveryCall({request("ChangeUsernamePassword", {{"username", text("chief")},
                                                          {"passwordOld", text(kOldPassword)},
                                                          {"passwordNew", text(kNewPassword)}}),
                       expectWhole});
  EXPECT_GE(calls, 9U);
}

}  // namespace
}  // namespace kova::system_test
