#include <openssl/x509.h>

#include <array>
#include <csignal>
#include <cstdio>
#include <set>

#include "Campaigns.h"
#include "Courses.h"
#include "TlsPeer.h"
#include "TransferRig.h"
#include "Transfers.h"

namespace kova::attack {
namespace {

using engine::Connection;
using engine::RawServer;
using std::chrono::milliseconds;
using system_test::Fields;
using system_test::md5;

constexpr char kOneEvent[] = "each reportable transfer is reported exactly once, in time";
constexpr char kNoOldTrust[] = "a server that is no longer trusted is not contacted";
// Added to a transfer's time-out.
constexpr milliseconds kOutcomeGrace(10'000);

/// Kinds of transfer, each of which may have one running. settle() uses heat maps.
struct Lane {
  const char* what;  // "" is a firmware update
  bool download;
};
constexpr std::array<Lane, 5> kLanes = {
    {{"snapshot", false}, {"eventSnapshot", false}, {"logo", true}, {"sound", true}, {"", true}}};

struct Transfer {
  std::uint64_t id = 0;
  std::string label;
  milliseconds limit{0};
  bool told = false;  // an event must come
  std::unique_ptr<RawServer> server;
};

class Servers : public Campaign {
 public:
  explicit Servers(Attack& attack) : attack_(attack), requester_(attack.camera()) {
    std::signal(SIGPIPE, SIG_IGN);  // OpenSSL writes without MSG_NOSIGNAL
    trust(identities_.authority);
    system_test::writeFile(persistent("server.pem"),
                           identities_.camera.certificatePem() + identities_.camera.keyPem());
    plantForeignAuthority();
    for (const char* file : {"/tmp/snap.jpeg", "/tmp/motionsnap_1.jpg"}) {
      system_test::writeFile(attack_.inside(file), std::string(150'000, 'p'));
    }
    temporariesBefore_ = temporaries();
  }

  void round() override {
    std::vector<Transfer> transfers;
    milliseconds longest(0);
    for (const Lane& lane : kLanes) {
      transfers.push_back(begin(lane));
      longest = std::max(longest, transfers.back().limit);
    }
    await(transfers, longest);
    for (Transfer& transfer : transfers) {
      const std::size_t events = requester_.outcomes(transfer.id).size();
      attack_.expect(!attack_.serves() || events == 1 || (events == 0 && !transfer.told), kOneEvent,
                     transfer.label + ": " + std::to_string(events) + " events");
    }
    transfers.clear();
    if (attack_.serves() && attack_.random().oneIn(2)) {
      replaceTrust();
    } else if (attack_.serves()) {
      useOddTimeout();
    }
  }

  void finish() override {
    expectTransfersWork(attack_, requester_);
    for (const std::string& name : temporaries()) {
      attack_.expect(temporariesBefore_.contains(name) || name == "heatmap_1.png" ||
                         name == "fwupdate.bin",  // a rejected image stays
                     "a transfer leaves no file behind", name);
    }
  }

 private:
  std::set<std::string> temporaries() const {
    std::set<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(attack_.inside("/tmp"))) {
      names.insert(entry.path().filename());
    }
    return names;
  }

  std::filesystem::path persistent(const std::string& name) const {
    return attack_.inside("/etc/persistent/" + name);
  }

  void trust(const engine::Identity& authority) const {
    system_test::writeFile(persistent("controller.crt"), authority.certificatePem());
  }

  // Plants it in OpenSSL's default folder of authorities, under the hash of its name.
  void plantForeignAuthority() const {
    const engine::Identity& stranger = identities_.foreignAuthority;
    std::array<char, 16> name{};
    std::snprintf(name.data(), name.size(), "%08lx.0",
                  X509_subject_name_hash(stranger.certificate.get()));
    for (const char* folder : {"/etc/ssl/certs/", "/usr/lib/ssl/certs/"}) {
      system_test::writeFile(attack_.inside(folder + std::string(name.data())),
                             stranger.certificatePem());
    }
  }

  Transfer begin(const Lane& lane) {
    Random& random = attack_.random();
    const std::size_t drawn = deck_.draw(random);
    const Course& course = drawn < httpCourses().size()
                               ? httpCourses()[drawn]
                               : tlsCourses()[drawn - httpCourses().size()];
    Transfer transfer;
    const milliseconds limit(std::max<std::size_t>(course.leastMs, 300 + 200 * random.below(5)));
    transfer.limit = limit;
    transfer.label = std::string(lane.what[0] == '\0' ? "firmware" : lane.what) + " with " +
                     course.name + ", " + std::to_string(limit.count()) + " ms";
    transfer.told = lane.download || course.failsUpload;
    transfer.server = std::make_unique<RawServer>(course.script(
        random, identities_, [this, label = transfer.label](const std::string& invariant) {
          attack_.expect(false, invariant, label);
        }));
    attack_.act(transfer.label);
    std::string uri = transfer.server->uri("/" + std::to_string(random.number()));
    if (course.tls) {
      uri.insert(4, "s");
    }
    transfer.id = requester_.ask({{"what", lane.what},
                                  {"uri", uri},
                                  {"filename", "motionsnap_1.jpg"},
                                  {"hash", std::string(32, '0')},
                                  {"timeoutMs", static_cast<unsigned>(limit.count())}});
    return transfer;
  }

  /// Waits until every transfer has ended: for its event or, if it sends none, for its time-out.
  void await(const std::vector<Transfer>& transfers, milliseconds longest) {
    const auto begin = std::chrono::steady_clock::now();
    const auto allAreTold = [&] {
      return std::ranges::all_of(
          transfers, [&](const auto& each) { return !requester_.outcomes(each.id).empty(); });
    };
    const auto mustBeTold = [&] {
      return std::ranges::any_of(transfers, [&](const auto& each) {
        return each.told && requester_.outcomes(each.id).empty();
      });
    };
    const auto since = [&] { return std::chrono::steady_clock::now() - begin; };
    while (attack_.serves() && !allAreTold() &&
           (since() < longest || (mustBeTold() && since() < longest + kOutcomeGrace))) {
      requester_.pump(5);
    }
    if (attack_.serves()) {
      requester_.settle();
    }
  }

  /// The server of a kept connection loses the camera's trust.
  void replaceTrust() {
    attack_.act("the controller's certificate is replaced between two transfers");
    std::atomic<unsigned> heads = 0;
    const RawServer server([&](Connection& connection) {
      TlsPeer peer(connection, identities_.server);
      for (bool open = peer.handshake(); open && peer.readHead();) {
        ++heads;  // before the camera can see the answer
        open = peer.send(engine::okResponse("body"));
      }
    });
    Fields fields = {{"what", "logo"}, {"hash", std::string(32, '0')}};
    fields["uri"] = "https" + server.uri("/first").substr(4);
    requester_.outcomeOf(fields);
    trust(identities_.foreignAuthority);
    const unsigned before = heads;
    fields["uri"] = "https" + server.uri("/second").substr(4);
    requester_.outcomeOf(fields);
    attack_.expect(heads == before, kNoOldTrust, "a second request came");
    trust(identities_.authority);
    requester_.settle();
  }

  /// Uses a time-out beyond the range of libcurl's option.
  void useOddTimeout() {
    const std::array<std::uint32_t, 3> odd = {UINT32_MAX, 2'147'484'000, INT32_MAX};
    const std::uint32_t timeoutMs = attack_.random().pick(odd);
    attack_.act("a logo with " + std::to_string(timeoutMs) + " ms");
    const std::string content = goodLogo(std::to_string(attack_.random().number()));
    const system_test::PlainServer server(content);
    const std::string outcome = requester_.outcomeOf({{"what", "logo"},
                                                      {"uri", server.uri()},
                                                      {"hash", md5(content)},
                                                      {"timeoutMs", timeoutMs}});
    attack_.expect(outcome == "OK", "a long time-out does no harm",
                   std::to_string(timeoutMs) + " ms: \"" + outcome + '"');
    requester_.settle();
  }

  Attack& attack_;
  const Identities identities_;
  system_test::Requester requester_;
  std::set<std::string> temporariesBefore_;
  Deck deck_{httpCourses().size() + tlsCourses().size()};
};

}  // namespace

std::unique_ptr<Campaign> makeServers(Attack& attack) {
  return std::make_unique<Servers>(attack);
}

}  // namespace kova::attack
