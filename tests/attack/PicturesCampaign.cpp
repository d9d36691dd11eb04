#include <algorithm>
#include <array>

#include "Campaigns.h"
#include "Manager.h"
#include "RawServer.h"
#include "Transfers.h"

namespace kova::attack {
namespace {

constexpr std::size_t kLogoLimit = 131'072;
constexpr std::array<const char*, 4> kOutcomes = {"OK", "VALIDATION_FAILED", "TRANSFER_TOOLARGE",
                                                  "DISK_IO_FAILED"};

std::vector<std::string> load(const std::vector<std::string>& names) {
  std::vector<std::string> contents;
  for (const std::string& name : names) {
    contents.push_back(system_test::readFile(std::string(KOVA_SOURCE) + "/" + name));
    if (contents.back().empty()) {
      throw std::runtime_error("no sample " + name);
    }
  }
  return contents;
}

class Pictures : public Campaign {
 public:
  explicit Pictures(Attack& attack)
      : attack_(attack),
        requester_(attack.camera()),
        pictures_(load({"camera/samples/logo.png", "tests/attack/samples/baseline.jpg",
                        "tests/attack/samples/progressive.jpg", "tests/attack/samples/large.jpg"})),
        sounds_(load({"camera/samples/chime.wav", "tests/fuzz/corpus/Wav/pcm",
                      "tests/fuzz/corpus/Wav/extensible"})) {}

  void round() override {
    Random& random = attack_.random();
    if (random.oneIn(4)) {
      return put("sound", random.mutated(random.pick(sounds_)));
    }
    std::string picture = random.pick(pictures_);
    if (random.oneIn(4)) {
      picture = manyScans(picture);
    }
    put("logo", random.oneIn(10) ? picture : random.mutated(picture));
  }

  void finish() override { expectTransfersWork(attack_, requester_); }

 private:
  void put(const std::string& what, const std::string& content) {
    const std::string digest = system_test::md5(content);
    attack_.act(what + " of " + std::to_string(content.size()) + " bytes, " + digest);
    const engine::RawServer server(engine::answering(engine::okResponse(content)));
    const std::string installed =
        system_test::readFile(attack_.inside("/etc/persistent/user_" + what + ".md5"));
    if (installed == digest) {
      return;  // no transfer starts
    }
    const std::string outcome =
        requester_.outcomeOf({{"what", what}, {"uri", server.uri()}, {"hash", digest}});
    attack_.expect(std::ranges::find(kOutcomes, outcome) != kOutcomes.end() || !attack_.serves(),
                   "every put has one of its outcomes", what + " " + digest + ": " + outcome);
  }

  /// A JPEG with one of its scans (ITU-T T.81, B.2.1) repeated up to the maximum size of a logo.
  std::string manyScans(const std::string& jpeg) {
    const std::string marker = "\xff\xda";
    std::vector<std::size_t> scans;
    for (auto at = jpeg.find(marker); at != std::string::npos; at = jpeg.find(marker, at + 1)) {
      scans.push_back(at);
    }
    if (scans.empty()) {
      return jpeg;
    }
    const std::size_t begin = attack_.random().pick(scans);
    // Up to the next marker outside the entropy-coded data.
    std::size_t end = begin + 2;
    while (end + 1 < jpeg.size() && (jpeg[end] != '\xff' || jpeg[end + 1] == '\0')) {
      ++end;
    }
    const std::string scan = jpeg.substr(begin, end - begin);
    std::string result = jpeg.substr(0, end);
    while (result.size() + scan.size() + jpeg.size() - end < kLogoLimit) {
      result += scan;
    }
    return result + jpeg.substr(end);
  }

  Attack& attack_;
  system_test::Requester requester_;
  const std::vector<std::string> pictures_;
  const std::vector<std::string> sounds_;
};

}  // namespace

std::unique_ptr<Campaign> makePictures(Attack& attack) {
  return std::make_unique<Pictures>(attack);
}

}  // namespace kova::attack
