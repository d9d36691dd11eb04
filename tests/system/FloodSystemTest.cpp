#include <algorithm>
#include <atomic>
#include <csignal>
#include <exception>
#include <memory>
#include <sstream>
#include <thread>

#include "BusClient.h"
#include "SharedCamera.h"

namespace kova::system_test {
namespace {

using std::chrono::milliseconds;

constexpr int kClients = 64;
constexpr int kCallsEach = 150;

constexpr milliseconds kLongestEnd(100);
constexpr std::size_t kMostGrowthKiB = 16'384;

using Clients = std::vector<std::unique_ptr<BusClient>>;

class FloodSystem : public SharedCamera {
 protected:
  static Clients connectAll() {
    Clients clients;
    for (int i = 0; i < kClients; ++i) {
      clients.push_back(std::make_unique<BusClient>(camera().busAddress()));
    }
    return clients;
  }

  // Sends everything at once; answers are read only to keep buffers from filling up.
  static void flood(const Clients& clients, const Append& body) {
    for (int i = 0; i < kCallsEach; ++i) {
      for (const auto& client : clients) {
        client->post(body);
      }
    }
  }
};

std::map<std::string, std::size_t> outcomes(const Clients& clients) {
  std::map<std::string, std::size_t> all;
  for (const auto& client : clients) {
    for (const auto& [what, count] : client->outcomes()) {
      all[what] += count;
    }
  }
  return all;
}

bool pumpUntilAllAreAnswered(const Clients& clients) {
  const auto areAnswered = [&] {
    for (const auto& client : clients) {
      client->pump();
    }
    return std::ranges::all_of(clients,
                               [](const auto& client) { return client->outstanding() == 0; });
  };
  return eventually(areAnswered, std::chrono::seconds(120));
}

TEST_F(FloodSystem, CallsOf64ClientsAreAnsweredInBoundedMemory) {
  const HostProcess server = controlServer(camera());
  const Append large = request("GetSystemStats", {{"unknown", text(std::string(16'384, 'x'))}});
  BusClient(camera().busAddress()).call(large);
  const std::size_t before = server.residentKiB();
  const Clients clients = connectAll();
  flood(clients, large);
  ASSERT_TRUE(pumpUntilAllAreAnswered(clients));

  // The bus throttles a flood with LimitsExceeded, which is an answer, too.
  std::size_t answered = 0;
  for (const auto& [what, count] : outcomes(clients)) {
    EXPECT_TRUE(what == "status 0" || what == "org.freedesktop.DBus.Error.LimitsExceeded") << what;
    answered += count;
  }
  EXPECT_EQ(answered, std::size_t{kClients} * kCallsEach);
  RecordProperty("served", std::to_string(outcomes(clients)["status 0"]));
  RecordProperty("growth_kib", std::to_string(server.peakResidentKiB() - before));
  EXPECT_GE(outcomes(clients)["status 0"], std::size_t{kClients});
  EXPECT_LT(server.peakResidentKiB(), before + kMostGrowthKiB);
  EXPECT_EQ(controlServer(camera()).pid(), server.pid());
}

// Clients that keep sending in a separate thread until this object is destroyed.
class LastingFlood {
 public:
  LastingFlood(Clients clients, std::vector<Append> bodies)
      : clients_(std::move(clients)), bodies_(std::move(bodies)), thread_([this] { run(); }) {}
  ~LastingFlood() { stop(); }
  LastingFlood(const LastingFlood&) = delete;
  LastingFlood& operator=(const LastingFlood&) = delete;

  /// Whether both succeeding and failing requests have been served.
  bool isUnderWay() const { return underWay_; }
  /// Stops sending, waits for open calls, and returns the outcomes of all.
  std::map<std::string, std::size_t> stop() {
    stopped_ = true;
    if (thread_.joinable()) {
      thread_.join();
      EXPECT_EQ(failure_, "");
      EXPECT_TRUE(!failure_.empty() || pumpUntilAllAreAnswered(clients_));
    }
    return outcomes(clients_);
  }

 private:
  static constexpr std::size_t kOpenEach = 100;

  void run() {
    try {
      for (std::size_t round = 0; !stopped_; ++round) {
        for (const auto& client : clients_) {
          if (client->outstanding() < kOpenEach) {
            client->post(bodies_[round % bodies_.size()]);
          }
          client->pump();
        }
        const auto all = outcomes(clients_);
        underWay_ = all.contains("status 0") && all.contains("status 1");
      }
    } catch (const std::exception& error) {
      failure_ = error.what();
    }
  }

  Clients clients_;
  std::vector<Append> bodies_;
  std::atomic<bool> stopped_ = false;
  std::atomic<bool> underWay_ = false;
  std::string failure_;
  std::thread thread_;
};

// Some requests keep the server busy for longer than the bus takes to deliver the next one, so its
// queue never runs empty. The best of several tries counts, because load on the host delays the
// end, too. A server that checks for signals only when the queue is empty is late every time.
TEST_F(FloodSystem, SigtermEndsFloodAtOnceAndAllCalls) {
  const std::vector<Append> bodies = {
      request("GetSystemStats"), request("ChangeUsernamePassword", {{"username", text("admin")},
                                                                    {"passwordOld", text("no")},
                                                                    {"passwordNew", text("no")}})};
  milliseconds fastest = milliseconds::max();
  for (int tries = 0; tries < 5 && fastest > kLongestEnd; ++tries) {
    ASSERT_TRUE(camera().waitForService());
    const HostProcess server = controlServer(camera());
    LastingFlood flood(connectAll(), bodies);
    ASSERT_TRUE(eventually([&] { return flood.isUnderWay(); }, std::chrono::seconds(30)));
    const auto start = std::chrono::steady_clock::now();
    server.signal(SIGTERM);
    ASSERT_TRUE(server.waitForEnd());
    fastest = std::min(fastest, std::chrono::duration_cast<milliseconds>(
                                    std::chrono::steady_clock::now() - start));
    const auto all = flood.stop();
    EXPECT_TRUE(all.contains("org.freedesktop.DBus.Error.NoReply")) << "no call was under way";
    EXPECT_FALSE(all.contains("other") || all.contains("taken"));
  }
  RecordProperty("end_ms", std::to_string(fastest.count()));
  EXPECT_LE(fastest.count(), kLongestEnd.count()) << "ms";
}

/// A process's soft limit (proc(5), "limits").
std::string limitOf(pid_t pid, const std::string& name) {
  std::istringstream limits(readFile("/proc/" + std::to_string(pid) + "/limits"));
  for (std::string line; std::getline(limits, line);) {
    if (line.starts_with(name + " ")) {
      std::istringstream rest(line.substr(name.size()));
      std::string value;
      rest >> value;
      return value;
    }
  }
  return "none";
}

TEST_F(FloodSystem, ServicesRunUnderLimits) {
  const pid_t daemon = controlServer(camera()).pid();
  EXPECT_EQ(limitOf(daemon, "Max open files"), "4096");
  EXPECT_EQ(limitOf(daemon, "Max core file size"), "0");
  EXPECT_EQ(limitOf(daemon, "Max data size"), "536870912");
  const std::vector<pid_t> buses = processesOf(camera(), "dbus-daemon");
  ASSERT_EQ(buses.size(), 1U);
  EXPECT_EQ(limitOf(buses.front(), "Max data size"), "536870912");
}

}  // namespace
}  // namespace kova::system_test
