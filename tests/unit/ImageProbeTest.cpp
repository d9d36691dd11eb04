#include "ImageProbe.h"

#include "TransferFixture.h"

namespace kova::ctlserver {
namespace {

using namespace std::string_literals;

const std::string kOnePixel = "empty=0 channels=1 depth=0 width=1 height=1";

ImageFigures probed(const fakes::ProcessResult& answer) {
  fakes::reset();
  platform().onRun = [answer](const std::string&) { return answer; };
  return probeImage("/tmp/a picture");
}

void expectEmpty(const fakes::ProcessResult& answer) {
  SCOPED_TRACE(answer.out);
  const ImageFigures image = probed(answer);
  EXPECT_TRUE(image.empty);
  EXPECT_EQ(image.channels, 1);
  EXPECT_EQ(image.depth, 0);
  EXPECT_EQ(image.width, 0);
  EXPECT_EQ(image.height, 0);
  EXPECT_THAT(platform().log,
              ElementsAre(LogLine{"ImageProbe", "probeImage", 4, 0,
                                  "Picture decoder gave no answer, path=/tmp/a picture, status=" +
                                      std::to_string(answer.status)}));
}

TEST(ImageProbeTest, ProbeGetsOnlyPathAndItsFiguresAreRead) {
  const ImageFigures image =
      probed({0, "empty=0 channels=3 depth=2 width=640 height=480\n", "libpng warning"});
  EXPECT_THAT(platform().commands, ElementsAre("/usr/libexec/kova_imageprobe /tmp/a picture"));
  EXPECT_THAT(platform().captures, ElementsAre(fakes::CaptureTerms{"", 10'000, 0, 1}));
  EXPECT_FALSE(image.empty);
  EXPECT_EQ(image.channels, 3);
  EXPECT_EQ(image.depth, 2);
  EXPECT_EQ(image.width, 640);
  EXPECT_EQ(image.height, 480);
}

TEST(ImageProbeTest, NonZeroStatusIsEmptyPicture) {
  for (const int status : {1, 2, 127, 128 + 9, 128 + 11, 128 + 15, 128 + 31, -1}) {
    expectEmpty({status, kOnePixel + "\n", ""});
  }
}

TEST(ImageProbeTest, OtherThanOneLineIsEmptyPicture) {
  for (const std::string& out :
       {""s, "\n"s, "nonsense"s, "empty=0"s, kOnePixel, kOnePixel + "\n\n", kOnePixel + "\nmore",
        kOnePixel + " \n", " " + kOnePixel + "\n", kOnePixel + "\n\0"s,
        "empty=0  channels=1 depth=0 width=1 height=1\n"s,
        "empty=0\nchannels=1\ndepth=0\nwidth=1\nheight=1\n"s,
        "empty=0 channels= 1 depth=0 width=1 height=1\n"s,
        "empty=0 channels=01 depth=0 width=1 height=1\n"s,
        "empty=0 channels=+1 depth=0 width=1 height=1\n"s,
        "empty=no channels=1 depth=0 width=1 height=1\n"s,
        "empty=0 channels=1 depth=0 width=99999999999999 height=1\n"s,
        "empty=0 channels=1 depth=0 width=1 height=0x1\n"s}) {
    expectEmpty({0, out, ""});
  }
}

}  // namespace
}  // namespace kova::ctlserver
