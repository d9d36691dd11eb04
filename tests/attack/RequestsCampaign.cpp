#include <algorithm>
#include <limits>

#include "BusClient.h"
#include "Campaigns.h"
#include "RandomRequest.h"
#include "RawConnection.h"
#include "Transfers.h"

namespace kova::attack {
namespace {

using system_test::BusClient;

constexpr std::size_t kBatch = 10;
constexpr std::chrono::seconds kAnswered(60);
constexpr char kEveryCall[] = "every call is answered, or its connection closed by the bus";

/// Checks that every call gets an answer. The bus itself drops a second answer to the same call.
class Requests : public Campaign {
 public:
  explicit Requests(Attack& attack) : attack_(attack) {}

  void round() override {
    if (attack_.random().oneIn(4)) {
      sendGarbage();
    } else {
      sendBatch();
    }
  }

  void finish() override {
    attack_.act("a good request");
    BusClient client(attack_.camera().busAddress());
    const std::string outcome = client.call(system_test::request("GetSystemStats"));
    attack_.expect(outcome == "status 0", "a good request is served afterwards", outcome);
    system_test::Requester requester(attack_.camera());
    expectTransfersWork(attack_, requester);
  }

 private:
  void sendBatch() {
    std::vector<RandomRequest> batch;
    for (std::size_t i = 0; i < kBatch; ++i) {
      batch.push_back(randomRequest(attack_.random()));
    }
    try {
      BusClient client(attack_.camera().busAddress());
      for (const RandomRequest& request : batch) {
        attack_.act(request.description);
        client.post(request.body);
      }
      const bool answered = system_test::eventually(
          [&] {
            client.pump(5);
            return client.outstanding() == 0 || !attack_.serves();
          },
          kAnswered);
      attack_.expect(answered, kEveryCall, std::to_string(client.outstanding()) + " are open");
    } catch (const std::exception& error) {
      attack_.act(std::string("the bus ended the connection: ") + error.what());
    }
  }

  // Recognises the answer by the header field REPLY_SERIAL, a uint32.
  void sendGarbage() {
    const RandomBody garbage = randomBody(attack_.random());
    attack_.act(garbage.description);
    system_test::RawConnection connection(attack_.inside("/run/kova/bus"));
    if (!connection.login()) {
      return;
    }
    constexpr std::uint32_t kSerial = 2;  // 1 is the call of Hello
    const std::string answer =
        std::string("\x05\x01u\0", 4) + system_test::Marshaller().number(kSerial).data();
    connection.call(garbage.signature, garbage.body, garbage.claimedSize);
    if (garbage.claimedSize <= garbage.body.size()) {
      attack_.expect(connection.receive(answer) || connection.waitForEnd() || !attack_.serves(),
                     kEveryCall, garbage.description);
    }
  }

  Attack& attack_;
};

}  // namespace

std::unique_ptr<Campaign> makeRequests(Attack& attack) {
  return std::make_unique<Requests>(attack);
}

}  // namespace kova::attack
