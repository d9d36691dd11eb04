#include <array>
#include <mutex>
#include <random>
#include <set>

#include "TransferRig.h"

namespace kova::system_test {
namespace {

constexpr unsigned kWarmUp = 60;
constexpr unsigned kStallMs = 300;
// However many transfers there are: libcurl remembers the peers of the last minute, and the heap
// has its gaps.
constexpr std::size_t kGrowthKiB = 512;
// The environment variable KOVA_SOAK sets another number.
#ifdef __SANITIZE_ADDRESS__
constexpr unsigned kTransfers = 300;
constexpr bool kMemoryIsTelling = false;  // what was freed is kept for a while
#else
constexpr unsigned kTransfers = 2000;
constexpr bool kMemoryIsTelling = true;
#endif

/// A way for a transfer to go, and the one event that tells of it, "" for none.
struct Course {
  std::string name;
  std::string outcome;
};

const std::vector<Course> kFailingDownloads = {
    {"error-page", "VALIDATION_FAILED"}, {"other-file", "VALIDATION_FAILED"},
    {"cut", "TRANSFER_FAILED"},          {"reset", "TRANSFER_FAILED"},
    {"stall", "TRANSFER_TIMEOUT"},       {"too-large", "TRANSFER_TOOLARGE"},
    {"nobody", "TRANSFER_FAILED"}};
const std::vector<Course> kFailingUpdates = {{"error-page", "FW_CHECK_FAILED"},
                                             {"cut", "TRANSFER_FAILED"},
                                             {"reset", "TRANSFER_FAILED"},
                                             {"stall", "TRANSFER_TIMEOUT"},
                                             {"nobody", "TRANSFER_FAILED"}};
const std::vector<Course> kFailingUploads = {{"cut", "TRANSFER_FAILED"},
                                             {"reset", "TRANSFER_FAILED"},
                                             {"stall", "TRANSFER_TIMEOUT"},
                                             {"nobody", "TRANSFER_FAILED"},
                                             {"error-page", ""}};
// The time-out would run while the archive is generated.
const std::vector<Course> kFailingArchives = {
    {"cut", "TRANSFER_FAILED"}, {"reset", "TRANSFER_FAILED"}, {"nobody", "TRANSFER_FAILED"}};

/// Kinds of transfer, of which one each may be under way.
struct Lane {
  const char* what;  // "" is a firmware update
  const char* filename;
  bool download;
  const std::vector<Course>& failures;
};
const Lane kLanes[] = {{"snapshot", "", false, kFailingUploads},
                       {"eventSnapshot", "motionsnap_1.jpg", false, kFailingUploads},
                       {"eventHeatmap", "heatmap_1.png", false, kFailingUploads},
                       {"supportInfo", "", false, kFailingArchives},
                       {"logo", "", true, kFailingDownloads},
                       {"sound", "", true, kFailingDownloads},
                       {"", "", true, kFailingUpdates}};

/// Behaves as the first word of the path says.
class MisbehavingServer : public engine::RawServer {
 public:
  explicit MisbehavingServer(std::string good)
      : RawServer([this](engine::Connection& connection) { serve(connection); }),
        good_(std::move(good)) {}

  bool answered(const std::string& path) const {
    const std::lock_guard lock(mutex_);
    return answered_.contains(path);
  }

 private:
  static std::string response(const std::string& status, std::size_t length,
                              const std::string& body) {
    return "HTTP/1.1 " + status +
           "\r\nConnection: close\r\nContent-Length: " + std::to_string(length) + "\r\n\r\n" + body;
  }

  void serve(engine::Connection& connection) {
    if (!connection.readHead()) {
      return;
    }
    const std::string head = connection.request().head;
    const std::string path =
        head.substr(head.find(' ') + 1, head.find(" HTTP") - head.find(' ') - 1);
    const std::string course = path.substr(1, path.find('/', 1) - 1);
    if (course == "reset") {
      return connection.resetOnClose();
    }
    if (course == "stall") {
      return connection.awaitClose();
    }
    if (!connection.readBody()) {
      return;
    }
    if (course == "error-page") {
      connection.send(response("500 No", 4, "oops"));
    } else if (course == "cut") {
      connection.send(response("200 OK", 1000, good_.substr(0, 10)));
    } else if (course == "too-large") {
      connection.send(response("200 OK", 1'000'000, "start"));
      connection.awaitClose();
    } else {
      connection.send(response("200 OK", good_.size(), good_));
    }
    const std::lock_guard lock(mutex_);
    answered_.insert(path);
  }

  const std::string good_;
  mutable std::mutex mutex_;
  std::set<std::string> answered_;
};

class SoakSystem : public TransferRig {
 protected:
  struct Transfer {
    std::uint64_t id = 0;
    std::string outcome;
    std::string path;
    std::string label;
    const MisbehavingServer* server = nullptr;
  };

  void SetUp() override {
    TransferRig::SetUp();
    for (const char* path : {"/tmp/snap.jpeg", "/tmp/motionsnap_1.jpg", "/tmp/heatmap_1.png"}) {
      writeFile(inside(path), picture(100, 100));
    }
  }

  static unsigned wanted() {
    const char* number = getenv("KOVA_SOAK");
    return number == nullptr ? kTransfers : static_cast<unsigned>(std::stoul(number));
  }

  /// So many transfers, one of each kind at a time.
  void runSome(unsigned count) {
    for (unsigned done = 0; done < count && !HasFailure(); done += std::size(kLanes)) {
      ++round_;
      // Another content each round, so that nothing is installed already.
      const std::string mark = std::to_string(round_);
      const MisbehavingServer logos(picture(16, 16) + mark);
      const MisbehavingServer sounds(sound(1, 11025) + mark);
      std::vector<Transfer> transfers;
      for (const Lane& lane : kLanes) {
        transfers.push_back(start(lane, std::string(lane.what) == "sound" ? sounds : logos, mark));
      }
      for (const Transfer& transfer : transfers) {
        finish(transfer);
      }
      expectExactlyTheirEvents(transfers);
    }
  }

  Transfer start(const Lane& lane, const MisbehavingServer& server, const std::string& mark) {
    Course course{"good", lane.download ? "OK" : ""};
    // A firmware image that is good would be flashed; that ends the matter on a real camera.
    if (random_() % 3 == 0 || std::string(lane.what).empty()) {
      course = lane.failures[random_() % lane.failures.size()];
    }
    Transfer transfer;
    transfer.path = "/" + course.name + "/" + lane.what + mark;
    transfer.label = transfer.path;
    transfer.outcome = course.outcome;
    transfer.server = &server;
    const bool isSound = std::string(lane.what) == "sound";
    const std::string good = (isSound ? sound(1, 11025) : picture(16, 16)) + mark;
    Fields fields = {{"uri", server.uri(transfer.path)},
                     {"filename", lane.filename},
                     {"hash", course.name == "other-file" ? std::string(32, '0') : md5(good)},
                     {"timeoutMs", course.name == "stall" ? kStallMs : 20'000U}};
    if (course.name == "nobody") {
      fields["uri"] = "http://127.0.0.1:1" + transfer.path;
    } else if (course.name == "good" && lane.download && round_ % 2 == 0) {
      manager().serve(lane.what, good);
      fields["uri"] = manager().fileUri(lane.what);
    }
    if (!std::string(lane.what).empty()) {
      fields["what"] = lane.what;
    }
    transfer.id = requester().ask(fields);
    return transfer;
  }

  void finish(const Transfer& transfer) {
    if (!transfer.outcome.empty()) {
      EXPECT_EQ(requester().outcome(transfer.id), transfer.outcome) << transfer.label;
      return;
    }
    EXPECT_TRUE(eventually([&] { return transfer.server->answered(transfer.path); },
                           std::chrono::seconds(20)))
        << transfer.label;
  }

  void expectExactlyTheirEvents(const std::vector<Transfer>& transfers) {
    requester().settle();  // what was answered has ended then, too
    for (const Transfer& transfer : transfers) {
      const std::vector<std::string> expected(transfer.outcome.empty() ? 0 : 1, transfer.outcome);
      EXPECT_EQ(requester().outcomes(transfer.id), expected) << transfer.label;
    }
  }

  static std::size_t children(const HostProcess& parent) {
    std::size_t count = 0;
    const std::string line = "\nPPid:\t" + std::to_string(parent.pid()) + "\n";
    for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
      count += readFile(entry.path() / "status").find(line) != std::string::npos ? 1 : 0;
    }
    return count;
  }

  std::mt19937 random_{4711};
  unsigned round_ = 0;
};

TEST_F(SoakSystem, MixedTransfersSendEventsAndLeaveNothingBehind) {
  const HostProcess server = controlServer(camera());
  runSome(kWarmUp);
  const std::size_t descriptors = server.descriptors();
  const std::size_t resident = server.residentKiB();
  // A firmware image that was rejected is left in place.
  std::filesystem::remove(inside("/tmp/fwupdate.bin"));
  const auto files = temporaries();

  runSome(wanted());

  EXPECT_EQ(server.descriptors(), descriptors);
  EXPECT_TRUE(eventually([&] { return children(server) == 0; }));
  std::filesystem::remove(inside("/tmp/fwupdate.bin"));
  EXPECT_THAT(temporaries(), testing::UnorderedElementsAreArray(files));
  if (kMemoryIsTelling) {
    EXPECT_LE(server.residentKiB(), resident + kGrowthKiB);
  }
  RecordProperty("transfers", static_cast<int>(round_ * std::size(kLanes)));
  RecordProperty("grownKiB", static_cast<int>(server.residentKiB()) - static_cast<int>(resident));
  std::printf("%zu transfers; resident memory %zu KiB, then %zu KiB\n", round_ * std::size(kLanes),
              resident, server.residentKiB());
}

}  // namespace
}  // namespace kova::system_test
