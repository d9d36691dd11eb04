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

  /// The request is refused with this line in the log and without an event or an upload.
  void expectRefused(const Fields& fields, const std::string& line) {
    const LogMark mark(camera());
    Fields all = fields;
    all.emplace("uri", manager().uploadUri("refused"));
    const std::uint64_t id = requester().ask(all);
    EXPECT_TRUE(mark.waitFor(line)) << line;
    expectSilence(id);
    EXPECT_FALSE(manager().received("refused").has_value());
  }

  const std::string picture_ = picture(300, 200) + std::string("\0\r\n--boundary", 13);
};

}  // namespace kova::system_test
