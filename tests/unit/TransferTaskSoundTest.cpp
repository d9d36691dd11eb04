#include "TransferTaskSound.h"

#include "InstallFixture.h"
#include "md5sum.h"

namespace kova::ctlserver {
namespace {

class TransferTaskSoundTest : public InstallTest<SoundKind> {
 protected:
  /// Installs a sound with the correct digest.
  void put(const std::string& content) {
    restart();
    empty("/etc/persistent");
    write(download_, content);
    std::string digest;
    ASSERT_TRUE(md5sum(download_, digest));
    arm(digest);
    errno = EIO;  // a stale value
    succeed();
  }

  static std::string refusal(unsigned sampleRate, unsigned dataSize) {
    return std::string("Sound validation failed, uri=") + kInstallUri +
           ", samplerate=" + std::to_string(sampleRate) + ", datasz=" + std::to_string(dataSize);
  }
};

TEST_F(TransferTaskSoundTest, OneChannelAt11025HertzIsAccepted) {
  for (const unsigned dataSize : {1000U, 0U}) {
    SCOPED_TRACE(dataSize);
    put(wav(1, 11025, dataSize));
    expectStatus("OK");
    EXPECT_THAT(platform().commands, ElementsAre(kSave)) << "no program checks a sound";
  }
}

TEST_F(TransferTaskSoundTest, OtherChannelsOrSampleRateAreRefused) {
  const std::pair<unsigned, unsigned> formats[] = {{2, 11025}, {6, 11025}, {257, 11025}, {1, 22050},
                                                   {1, 11024}, {1, 11026}, {1, 44100},   {1, 8000}};
  for (const auto& [channels, rate] : formats) {
    SCOPED_TRACE(std::to_string(channels) + " at " + std::to_string(rate));
    put(wav(channels, rate, 24));
    expectRefused(refusal(rate, 24));
  }
}

TEST_F(TransferTaskSoundTest, NonWavIsRefusedWithZeros) {
  const std::string good = wav(1, 11025);
  for (const std::string& content :
       {std::string(), std::string("sound"), good.substr(0, 20), "RIFX" + good.substr(4),
        good.substr(0, 8) + "AVI " + good.substr(12)}) {
    SCOPED_TRACE(testing::PrintToString(content.substr(0, 12)));
    put(wav(1, 22050, 16));  // its figures must not show up in the next log line
    put(content);
    expectRefused(refusal(0, 0));
  }
}

}  // namespace
}  // namespace kova::ctlserver
