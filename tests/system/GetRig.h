#pragma once

#include "TransferRig.h"

namespace kova::system_test {

/// A camera with one picture of each kind to fetch.
class GetSystem : public TransferRig {
 protected:
  void SetUp() override {
    TransferRig::SetUp();
    writeFile(inside("/tmp/snap.jpeg"), picture_);
    writeFile(inside("/tmp/motionsnap_12.jpg"), picture_);
    writeFile(inside("/tmp/heatmap_12.png"), picture_);
  }

  std::uint64_t get(const std::string& what, const std::string& name, Fields more = {}) {
    more.emplace("what", what);
    more.emplace("uri", manager().uploadUri(name));
    return requester().ask(more);
  }

  static bool arrives(const std::string& name) {
    return eventually([&] { return manager().received(name).has_value(); });
  }

  void expectSilence(std::uint64_t id) {
    requester().settle();
    EXPECT_THAT(requester().outcomes(id), testing::IsEmpty());
  }

  const std::string picture_ = picture(300, 200) + std::string("\0\r\n--boundary", 13);
};

}  // namespace kova::system_test
