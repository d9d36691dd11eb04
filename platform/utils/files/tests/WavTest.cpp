#include "kova/utils/Wav.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>

#include "../src/WavHeader.h"
#include "TemporaryFolder.h"

namespace kova::utils {
namespace {

using tests::TemporaryFolder;
using tests::writeText;

std::string le(std::uint64_t value, int bytes) {
  std::string text;
  for (int i = 0; i < bytes; ++i) {
    text.push_back(static_cast<char>(value >> (8 * i)));
  }
  return text;
}

std::string chunk(const std::string& tag, const std::string& body) {
  return tag + le(body.size(), 4) + body + std::string(body.size() % 2, '\0');
}

std::string riff(const std::string& chunks) {
  return "RIFF" + le(chunks.size() + 4, 4) + "WAVE" + chunks;
}

std::string format(unsigned tag, unsigned channels, unsigned rate) {
  return le(tag, 2) + le(channels, 2) + le(rate, 4) + le(std::uint64_t{rate} * channels * 2, 4) +
         le(std::uint64_t{channels} * 2, 2) + le(16, 2);
}

const std::string kPcmGuid("\x01\0\0\0\0\0\x10\0\x80\0\0\xaa\0\x38\x9b\x71", 16);

std::string extensible(const std::string& guid) {
  return format(0xfffe, 1, 11025) + le(22, 2) + le(16, 2) + le(4, 4) + guid;
}

const std::string kFormat = chunk("fmt ", format(1, 1, 11025));
const std::string kData = chunk("data", std::string(1000, 's'));

class WavTest : public testing::Test {
 protected:
  bool read(const std::string& content) {
    writeText(path_, content);
    return readWavHeader(path_, channels_, sampleRate_, dataSize_);
  }

  TemporaryFolder folder_;
  const std::string path_ = folder_ / "sound.wav";
  unsigned short channels_ = 7;
  unsigned int sampleRate_ = 8;
  unsigned int dataSize_ = 9;
};

TEST_F(WavTest, ReportsChannelsRateAndDataSize) {
  ASSERT_TRUE(read(riff(chunk("fmt ", format(1, 2, 44100)) + kData)));
  EXPECT_EQ(channels_, 2);
  EXPECT_EQ(sampleRate_, 44100U);
  EXPECT_EQ(dataSize_, 1000U);
}

TEST_F(WavTest, ChunksMayComeInAnyOrder) {
  EXPECT_TRUE(read(riff(kData + chunk("LIST", "odd") + kFormat)));
  EXPECT_EQ(sampleRate_, 11025U);
  EXPECT_TRUE(
      read(riff(chunk("junk", "") + kFormat + chunk("fact", "1234") + kData + chunk("junk", ""))));
}

TEST_F(WavTest, OddChunksArePaddedExceptLast) {
  const std::string odd = riff(kFormat + chunk("data", "123"));
  EXPECT_TRUE(read(odd));
  EXPECT_EQ(dataSize_, 3U);
  EXPECT_TRUE(read(riff((kFormat + chunk("data", "123")).substr(0, kFormat.size() + 11))));
  EXPECT_TRUE(read(riff(chunk("data", "123") + kFormat)));
}

TEST_F(WavTest, BytesAfterRiffChunkAreIgnored) {
  EXPECT_TRUE(read(riff(kFormat + kData) + "tail"));
}

TEST_F(WavTest, ExtensiblePcmCountsAsPcm) {
  ASSERT_TRUE(read(riff(chunk("fmt ", extensible(kPcmGuid)) + kData)));
  EXPECT_EQ(channels_, 1);
  EXPECT_EQ(sampleRate_, 11025U);
}

TEST_F(WavTest, OtherSampleFormatsAreRefused) {
  std::string floatGuid = kPcmGuid;
  floatGuid[0] = 3;
  EXPECT_FALSE(read(riff(chunk("fmt ", extensible(floatGuid)) + kData)));
  EXPECT_FALSE(read(riff(chunk("fmt ", extensible(kPcmGuid).substr(0, 38)) + kData)));
  EXPECT_FALSE(read(riff(chunk("fmt ", format(0xfffe, 1, 11025)) + kData)));
  EXPECT_FALSE(read(riff(chunk("fmt ", format(3, 1, 11025)) + kData)));
  EXPECT_FALSE(read(riff(chunk("fmt ", format(1, 0, 11025)) + kData)));
  EXPECT_FALSE(read(riff(chunk("fmt ", format(1, 1, 0)) + kData)));
  EXPECT_FALSE(read(riff(chunk("fmt ", format(1, 1, 11025).substr(0, 15)) + kData)));
}

TEST_F(WavTest, FailureLeavesOutputsAlone) {
  EXPECT_FALSE(read(riff(chunk("fmt ", format(1, 2, 44100)))));
  EXPECT_FALSE(read("no sound at all"));
  EXPECT_FALSE(read(""));
  EXPECT_FALSE(readWavHeader(folder_.path(), channels_, sampleRate_, dataSize_));
  EXPECT_FALSE(readWavHeader(folder_ / "absent", channels_, sampleRate_, dataSize_));
  EXPECT_EQ(channels_, 7);
  EXPECT_EQ(sampleRate_, 8U);
  EXPECT_EQ(dataSize_, 9U);
}

TEST_F(WavTest, EveryTruncationIsRefused) {
  const std::string whole = riff(kFormat + kData);
  ASSERT_TRUE(read(whole));
  for (std::size_t length = 0; length < whole.size(); length += length < 60 ? 1 : 97) {
    EXPECT_FALSE(read(whole.substr(0, length))) << length;
  }
}

TEST_F(WavTest, ChunksBeyondEndOfFileAreRefused) {
  EXPECT_FALSE(read(riff(kFormat + "data" + le(4, 4) + "123")));
  EXPECT_FALSE(read(riff(kFormat + "data" + le(0xffffffff, 4) + "123")));
  EXPECT_FALSE(read(riff("data" + le(0xfffffff8, 4) + kFormat)));
  EXPECT_FALSE(read(riff(kFormat + kData + "junk")));
}

TEST_F(WavTest, SecondFormatOrDataChunkIsRefused) {
  EXPECT_FALSE(read(riff(kFormat + kData + kData)));
  EXPECT_FALSE(read(riff(kFormat + kFormat + kData)));
}

TEST_F(WavTest, OtherContainersAreRefused) {
  const std::string whole = riff(kFormat + kData);
  EXPECT_FALSE(read("RIFX" + whole.substr(4)));
  EXPECT_FALSE(read(whole.substr(0, 8) + "AVI " + whole.substr(12)));
  EXPECT_FALSE(read("RIFF" + le(3, 4) + whole.substr(8)));
}

TEST_F(WavTest, HostileFileCostsBoundedReads) {
  std::string chunks;
  for (int i = 0; i < 100000; ++i) {
    chunks += chunk("junk", "");
  }
  const std::string text = riff(chunks + kFormat + kData);
  int reads = 0;
  const auto readAt = [&](std::uint64_t offset, unsigned char* buffer, std::uint64_t length) {
    ++reads;
    std::copy_n(text.begin() + static_cast<std::ptrdiff_t>(offset), length, buffer);
    return true;
  };
  EXPECT_FALSE(internal::parseWavHeader(readAt, text.size()));
  EXPECT_EQ(reads, 1 + 1024);
}

TEST_F(WavTest, ReadErrorFails) {
  const auto readAt = [](std::uint64_t, unsigned char*, std::uint64_t) { return false; };
  EXPECT_FALSE(internal::parseWavHeader(readAt, 1000));
}

}  // namespace
}  // namespace kova::utils
