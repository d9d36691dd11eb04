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

TEST_F(GetSystem, FileOverLimitIsNotSent) {
  const struct {
    const char* what;
    const char* file;
    std::uintmax_t maxSz;
  } kinds[] = {{"snapshot", "/tmp/snap.jpeg", 200'000},
               {"eventHeatmap", "/tmp/heatmap_12.png", 65'536}};
  for (const auto& [what, file, maxSz] : kinds) {
    std::filesystem::resize_file(inside(file), maxSz + 1);
    const std::size_t before = manager().requests("POST /upload/large");
    const LogMark mark(camera());
    EXPECT_EQ(requester().outcome(get(what, "large", {{"filename", "heatmap_12.png"}})),
              "TRANSFER_TOOLARGE");
    EXPECT_TRUE(mark.waitFor("reason=TRANSFER_TOOLARGE(6), httpCode=0"));
    EXPECT_EQ(manager().requests("POST /upload/large"), before);

    std::filesystem::resize_file(inside(file), maxSz);
    get(what, what, {{"filename", "heatmap_12.png"}});
    EXPECT_TRUE(arrives(what)) << "one of exactly its maximum";
  }
}

}  // namespace
}  // namespace kova::system_test
