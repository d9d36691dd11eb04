#include "TransferTaskSound.h"

#include "InstallFixture.h"
#include "md5sum.h"

namespace kova::ctlserver {
namespace {

class TransferTaskSoundTest : public InstallTest<SoundKind> {
 protected:
  /// Puts a sound under its right digest.
  void put(const std::string& content) {
    restart();
    empty("/etc/persistent");
    write(download_, content);
    std::string digest;
    ASSERT_TRUE(md5sum(download_, digest));
    arm(digest);
    errno = EIO;  // of long ago
    succeed();
  }

  void expectRefused(unsigned sampleRate, unsigned dataSize) {
    EXPECT_THAT(logged(),
                ElementsAre(line(std::string("Sound validation failed, uri=") + kInstallUri +
                                 ", samplerate=" + std::to_string(sampleRate) +
                                 ", datasz=" + std::to_string(dataSize))));
    EXPECT_EQ(platform().log.back().error, 0) << "the content is to blame";
    expectStatus("VALIDATION_FAILED");
    expectTempsGone();
    expectNothingInstalled();
  }
};

TEST_F(TransferTaskSoundTest, OneChannelAt11025HertzIsAccepted) {
  put(wav(1, 11025, 1000));
  expectStatus("OK");
  EXPECT_THAT(platform().commands, ElementsAre(kSaveCommand)) << "no program judges a sound";
}

TEST_F(TransferTaskSoundTest, EmptySoundIsAccepted) {
  put(wav(1, 11025, 0));
  expectStatus("OK");
}

TEST_F(TransferTaskSoundTest, OtherNumberOfChannelsIsRefused) {
  for (const unsigned channels : {2U, 6U, 257U}) {
    put(wav(channels, 11025, 24));
    expectRefused(11025, 24);
  }
}

TEST_F(TransferTaskSoundTest, OtherSampleRateIsRefused) {
  for (const unsigned rate : {22050U, 11024U, 11026U, 44100U, 8000U}) {
    put(wav(1, rate, 16));
    expectRefused(rate, 16);
  }
}

TEST_F(TransferTaskSoundTest, NonWavIsRefusedWithZeros) {
  const std::string good = wav(1, 11025);
  for (const std::string& content :
       {std::string(), std::string("sound"), good.substr(0, 20), "RIFX" + good.substr(4),
        good.substr(0, 8) + "AVI " + good.substr(12)}) {
    put(content);
    expectRefused(0, 0);
  }
}

TEST_F(TransferTaskSoundTest, FiguresOfPreviousSoundAreDropped) {
  put(wav(1, 22050, 16));
  put("no sound");
  expectRefused(0, 0);
}

}  // namespace
}  // namespace kova::ctlserver
