#include "GetRig.h"

namespace kova::system_test {
namespace {

TEST_F(GetSystem, PicturesArriveIntactWithFormFieldsWithoutEvent) {
  const std::pair<const char*, const char*> kinds[] = {
      {"snapshot", ""}, {"eventSnapshot", "motionsnap_12.jpg"}, {"eventHeatmap", "heatmap_12.png"}};
  for (const auto& [what, filename] : kinds) {
    const std::uint64_t id =
        get(what, what,
            {{"filename", filename}, {"formFields", Fields{{"camera", "Tür 1"}, {"", "x"}}}});
    ASSERT_TRUE(arrives(what));
    EXPECT_EQ(manager().received(what)->payload, picture_);
    EXPECT_EQ(manager().received(what)->fields.at("camera"), "Tür 1");
    expectSilence(id);
  }
  for (const char* path : {"/tmp/snap.jpeg", "/tmp/motionsnap_12.jpg", "/tmp/heatmap_12.png"}) {
    EXPECT_EQ(readFile(inside(path)), picture_) << "the file stays";
  }
}

TEST_F(GetSystem, LinkToKeyIsNotSent) {
  const auto snapshot = inside("/tmp/snap.jpeg");
  std::filesystem::remove(snapshot);
  std::filesystem::create_symlink("/etc/persistent/server.pem", snapshot);
  const LogMark mark(camera());
  EXPECT_EQ(requester().outcome(get("snapshot", "planted")), "TRANSFER_FAILED");
  EXPECT_TRUE(mark.waitFor(": Refused to open /tmp/snap.jpeg: it is a symbolic link"));
  EXPECT_FALSE(manager().received("planted").has_value());
  std::filesystem::remove(snapshot);
}

}  // namespace
}  // namespace kova::system_test
