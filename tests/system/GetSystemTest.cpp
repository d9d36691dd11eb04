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

TEST_F(GetSystem, MissingFileFailsTransfer) {
  std::filesystem::remove(inside("/tmp/snap.jpeg"));
  EXPECT_EQ(requester().outcome(get("snapshot", "x")), "TRANSFER_FAILED");
  EXPECT_EQ(requester().outcome(get("eventSnapshot", "x", {{"filename", "motionsnap_.jpg"}})),
            "TRANSFER_FAILED");
  writeFile(inside("/tmp/snap.jpeg"), picture_);
  get("snapshot", "after-missing");
  EXPECT_TRUE(arrives("after-missing")) << "nothing is left of the failure";
}

TEST_F(GetSystem, FailureIsSilentWithEventsDisabled) {
  const std::string dead = "http://127.0.0.1:1/";
  const LogMark mark(camera());
  const std::uint64_t silent =
      requester().ask({{"what", "snapshot"}, {"uri", dead}, {"disableEvents", true}});
  EXPECT_TRUE(mark.waitFor("Transfer task failed, name=snapshot"));
  expectSilence(silent);
  EXPECT_EQ(requester().outcomeOf({{"what", "snapshot"}, {"uri", dead}}), "TRANSFER_FAILED");
}

TEST_F(GetSystem, NonTextFormFieldFailsTransfer) {
  const LogMark mark(camera());
  // The file of such a transfer stays taken, so each has one of its own.
  int number = 900;
  for (const Variant& value : {Variant(7), Variant(true), Variant(), Variant(1.5),
                               Variant(Fields{{"a", "b"}}), Variant(Variant::Array{"a"})}) {
    const std::string name = "heatmap_" + std::to_string(number++) + ".png";
    writeFile(inside("/tmp/" + name), "x");
    EXPECT_EQ(requester().outcome(get("eventHeatmap", "never",
                                      {{"filename", name}, {"formFields", Fields{{"k", value}}}})),
              "TRANSFER_FAILED");
  }
  EXPECT_FALSE(manager().received("never").has_value());
  EXPECT_TRUE(mark.waitFor("Only strings are allowed in the form fields"));
}

TEST_F(GetSystem, FileNameCannotLeavePattern) {
  const std::string nul(1, '\0');
  for (const std::string& filename :
       {std::string("../etc/passwd"), std::string("../../etc/shadow"), std::string("/etc/passwd"),
        std::string("motionsnap_1/../../etc/passwd"), std::string("motionsnap_1.jpg/../x"),
        std::string("motionsnap_12.jpg."), std::string("./motionsnap_12.jpg"), std::string(""),
        "motionsnap_12.jpg" + nul, "motionsnap_12" + nul + ".jpg", nul + "motionsnap_12.jpg",
        "../etc/passwd" + nul + ".jpg", std::string("motionsnap_12.jpg\n"),
        std::string("motionsnap_%31.jpg"), "motionsnap_" + std::string(1'000'000, '/') + ".jpg"}) {
    SCOPED_TRACE(filename.substr(0, 40));
    expectRefused({{"what", "eventSnapshot"}, {"filename", filename}},
                  "Path not on whitelist for name=eventSnapshot");
    expectRefused({{"what", "eventHeatmap"}, {"filename", filename}},
                  "Path not on whitelist for name=eventHeatmap");
  }
}

TEST_F(GetSystem, FileNameOfMillionDigitsIsMissingFile) {
  const std::string filename = "motionsnap_" + std::string(1'000'000, '7') + ".jpg";
  EXPECT_EQ(requester().outcome(get("eventSnapshot", "x", {{"filename", filename}})),
            "TRANSFER_FAILED");
}

/// What stands in /tmp/snap.jpeg in the place of a picture is not sent, and the log says why.
class PlantedSystem : public GetSystem {
 protected:
  void SetUp() override {
    GetSystem::SetUp();
    std::filesystem::remove(snapshot_);
  }
  void TearDown() override {
    std::filesystem::remove(snapshot_);
    GetSystem::TearDown();
  }
  void expectUnsent(const std::string& why) {
    const LogMark mark(camera());
    EXPECT_EQ(requester().outcome(get("snapshot", "planted")), "TRANSFER_FAILED");
    EXPECT_TRUE(mark.waitFor(": Refused to open /tmp/snap.jpeg: " + why)) << mark.text();
    EXPECT_FALSE(manager().received("planted").has_value());
  }

  const std::filesystem::path snapshot_ = inside("/tmp/snap.jpeg");
};

TEST_F(PlantedSystem, LinkToKeyIsNotSent) {
  std::filesystem::create_symlink("/etc/persistent/server.pem", snapshot_);
  expectUnsent("it is a symbolic link");
}

TEST_F(PlantedSystem, HardLinkIsNotSent) {
  std::filesystem::create_hard_link(inside("/etc/passwd"), snapshot_);
  expectUnsent("it has a second name");
}

TEST_F(PlantedSystem, PipeIsNotSentAndDoesNotBlock) {
  ASSERT_EQ(camera().shell("mkfifo /tmp/snap.jpeg").status, 0);
  expectUnsent("it is no regular file");
}

TEST_F(PlantedSystem, ForeignFileIsNotSent) {
  writeFile(snapshot_, picture_);
  if (camera().shell("chown nobody /tmp/snap.jpeg || chown 65534 /tmp/snap.jpeg").status != 0) {
    GTEST_SKIP() << "there is but one user in this camera";
  }
  expectUnsent("it belongs to somebody else");
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

TEST_F(GetSystem, FolderInPlaceOfPictureFailsTransfer) {
  std::filesystem::remove(inside("/tmp/motionsnap_12.jpg"));
  std::filesystem::create_directory(inside("/tmp/motionsnap_12.jpg"));
  EXPECT_EQ(requester().outcome(get("eventSnapshot", "x", {{"filename", "motionsnap_12.jpg"}})),
            "TRANSFER_FAILED");
  std::filesystem::remove(inside("/tmp/motionsnap_12.jpg"));
}

}  // namespace
}  // namespace kova::system_test
