#include "Transfers.h"

#include "TransferRig.h"

namespace kova::attack {

using system_test::md5;

namespace {

constexpr char kWorks[] = "every kind of transfer works afterwards";

void expectDownload(Attack& attack, system_test::Requester& requester, const std::string& what,
                    const std::string& content, const std::string& wanted) {
  if (!attack.serves()) {
    return;
  }
  const system_test::PlainServer server(content);
  const std::string outcome =
      requester.outcomeOf({{"what", what}, {"uri", server.uri()}, {"hash", md5(content)}});
  attack.expect(outcome == wanted, kWorks,
                (what.empty() ? "firmware" : what) + ": " + outcome + " instead of " + wanted);
}

void expectUpload(Attack& attack, system_test::Requester& requester, const std::string& what,
                  const std::string& file) {
  if (!attack.serves()) {
    return;
  }
  const std::string content = "picture " + std::to_string(attack.seed());
  std::filesystem::remove_all(attack.inside("/tmp/" + file));
  system_test::writeFile(attack.inside("/tmp/" + file), content);
  const system_test::PlainServer server("");
  requester.ask({{"what", what}, {"uri", server.uri()}, {"filename", file}});
  const bool arrived = system_test::eventually(
      [&] {
        requester.pump();
        return !server.requests().empty();
      },
      std::chrono::seconds(20));
  attack.expect(arrived && server.requests().front().body.find(content) != std::string::npos,
                kWorks, what + " does not arrive");
}

}  // namespace

std::string goodLogo(const std::string& mark) {
  return system_test::picture(16, 16) + mark;
}

std::string goodSound(const std::string& mark) {
  return tests::wav(1, 11025) + mark;
}

void expectTransfersWork(Attack& attack, system_test::Requester& requester) {
  attack.act("one good transfer of each kind");
  const std::string mark = std::to_string(attack.random().number());
  expectDownload(attack, requester, "logo", goodLogo(mark), "OK");
  expectDownload(attack, requester, "sound", goodSound(mark), "OK");
  expectDownload(attack, requester, "", "no image " + mark, "FW_CHECK_FAILED");
  expectUpload(attack, requester, "snapshot", "snap.jpeg");
  expectUpload(attack, requester, "eventSnapshot", "motionsnap_1.jpg");
  expectUpload(attack, requester, "eventHeatmap", "heatmap_1.png");
}

}  // namespace kova::attack
