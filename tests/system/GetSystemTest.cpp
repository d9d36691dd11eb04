#include "GetRig.h"

namespace kova::system_test {
namespace {

TEST_F(GetSystem, EachPictureArrivesByteForByteWithItsFormFieldsAndWithoutAnEvent) {
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

TEST_F(GetSystem, AMissingFileFailsTheTransfer) {
  std::filesystem::remove(inside("/tmp/snap.jpeg"));
  EXPECT_EQ(requester().outcome(get("snapshot", "x")), "TRANSFER_FAILED");
  EXPECT_EQ(requester().outcome(get("eventSnapshot", "x", {{"filename", "motionsnap_.jpg"}})),
            "TRANSFER_FAILED");
  writeFile(inside("/tmp/snap.jpeg"), picture_);
  get("snapshot", "after-missing");
  EXPECT_TRUE(arrives("after-missing")) << "nothing is left of the failure";
}

TEST_F(GetSystem, WithEventsDisabledAFailureIsSilent) {
  const std::string dead = "http://127.0.0.1:1/";
  const LogMark mark(camera());
  const std::uint64_t silent =
      requester().ask({{"what", "snapshot"}, {"uri", dead}, {"disableEvents", true}});
  EXPECT_TRUE(mark.waitFor("Transfer task failed, name=snapshot"));
  expectSilence(silent);
  EXPECT_EQ(requester().outcomeOf({{"what", "snapshot"}, {"uri", dead}}), "TRANSFER_FAILED");
}

TEST_F(GetSystem, AFormFieldThatIsNoTextFailsTheTransfer) {
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
  EXPECT_NE(camera().log().find("Only strings are allowed in the form fields"), std::string::npos);
}

TEST_F(GetSystem, NoFileNameLeadsOutOfItsPattern) {
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

TEST_F(GetSystem, AFileNameOfAMillionDigitsIsWithinThePatternAndNoFile) {
  const std::string filename = "motionsnap_" + std::string(1'000'000, '7') + ".jpg";
  EXPECT_EQ(requester().outcome(get("eventSnapshot", "x", {{"filename", filename}})),
            "TRANSFER_FAILED");
}

TEST_F(GetSystem, AFolderInPlaceOfAPictureFailsTheTransfer) {
  std::filesystem::remove(inside("/tmp/motionsnap_12.jpg"));
  std::filesystem::create_directory(inside("/tmp/motionsnap_12.jpg"));
  EXPECT_EQ(requester().outcome(get("eventSnapshot", "x", {{"filename", "motionsnap_12.jpg"}})),
            "TRANSFER_FAILED");
  std::filesystem::remove(inside("/tmp/motionsnap_12.jpg"));
}

}  // namespace
}  // namespace kova::system_test
