// Hostile files: whatever their content, the probe ends soon, stays small, and reports a picture
// only if there is one.

#include <gmock/gmock.h>

#include <random>

#include "ProbeFixture.h"

namespace kova::imageprobe {
namespace {

constexpr double kProcessorSeconds = 3;  // a second each for loading, decoding and exit
// 256 MiB of data, the libraries, and the memory of this process at the time of the fork, which
// ru_maxrss (getrusage(2)) includes.
constexpr long kResidentKiB = 420L * 1024;

struct Sample {
  const char* format;
  int type;
};

// Every format that the library writes by default, in each pixel type that it supports.
constexpr Sample kSamples[] = {
    {".png", CV_8UC1},  {".png", CV_8UC3},   {".png", CV_8UC4},   {".png", CV_16UC1},
    {".png", CV_16UC4}, {".jpg", CV_8UC1},   {".jpg", CV_8UC3},   {".bmp", CV_8UC1},
    {".bmp", CV_8UC3},  {".bmp", CV_8UC4},   {".tiff", CV_8UC1},  {".tiff", CV_8UC3},
    {".tiff", CV_8UC4}, {".tiff", CV_16UC1}, {".tiff", CV_32FC3}, {".webp", CV_8UC3},
    {".webp", CV_8UC4}, {".jp2", CV_8UC3},   {".jp2", CV_16UC1},  {".pgm", CV_8UC1},
    {".pgm", CV_16UC1}, {".ppm", CV_8UC3},   {".pbm", CV_8UC1},   {".pam", CV_8UC3},
    {".sr", CV_8UC3},   {".hdr", CV_32FC3},  {".pfm", CV_32FC1}};

class HostileTest : public ProbeFixture {
 protected:
  static std::string encoded(const Sample& sample) {
    return encode(sample.format, noise(64, 48, sample.type));
  }

  /// Output of the probe; "killed" if a signal ended it.
  static std::string bounded(const Ended& result) {
    EXPECT_LE(result.cpuSeconds, kProcessorSeconds);
    EXPECT_LE(result.residentKiB, kResidentKiB);
    if (result.status > 128) {
      return "killed";
    }
    EXPECT_EQ(result.status, 0);
    return result.out;
  }

  /// Expects the output of an unconfined decoder for these bytes, or death by a signal.
  void expectTrueOrKilled(const std::string& content) const {
    write(content);
    const std::string said = bounded(probeInFork(file_));
    if (said != "killed" && said != kEmptyLine) {
      EXPECT_EQ(said, unconfined(file_));
    }
  }

  void expectRefused(const std::string& content,
                     Ended (*run)(const std::string&) = probeInFork) const {
    write(content);
    const std::string said = bounded(run(file_));
    EXPECT_TRUE(said == kEmptyLine || said == "killed")
        << testing::PrintToString(content.substr(0, 40)) << said;
  }

  /// A progressive JPEG file of 1024x1024 pixels, its last scan repeated.
  static std::string jpegWithMoreScans(int more) {
    std::string file =
        encode(".jpg", noise(1024, 1024, CV_8UC3), {cv::IMWRITE_JPEG_PROGRESSIVE, 1});
    const std::size_t end = file.rfind("\xff\xd9");
    const std::size_t scan = file.rfind("\xff\xda");
    const std::string last = file.substr(scan, end - scan);
    for (int i = 0; i < more; ++i) {
      file.insert(end, last);
    }
    return file;
  }
};

TEST_F(HostileTest, ProbeDecodesWhatLibraryDecodes) {
  for (const Sample& sample : kSamples) {
    SCOPED_TRACE(std::string(sample.format) + " " + std::to_string(sample.type));
    write(encoded(sample));
    const std::string expected = unconfined(file_);
    EXPECT_THAT(expected, testing::EndsWith(" width=64 height=48\n"))
        << "the sample does not decode";
    EXPECT_EQ(bounded(probe(file_)), expected);
    EXPECT_EQ(bounded(probeInFork(file_)), expected);
  }
}

TEST_F(HostileTest, CutFilesGiveTrueSizeOrKill) {
  for (const Sample& sample : kSamples) {
    const std::string good = encoded(sample);
    for (const double part : {0.03, 0.3, 0.97}) {
      const auto length = static_cast<std::size_t>(static_cast<double>(good.size()) * part);
      SCOPED_TRACE(std::string(sample.format) + " cut at " + std::to_string(length));
      expectTrueOrKilled(good.substr(0, length));
    }
  }
}

TEST_F(HostileTest, FlippedBitsGiveTrueSizeOrKill) {
  std::mt19937 random(20'001);
  for (const Sample& sample : kSamples) {
    const std::string good = encoded(sample);
    for (int round = 0; round < 4; ++round) {
      std::string bad = good;
      for (int flip = 0; flip < 1 << round; ++flip) {
        // Every other flip hits the header, which holds sizes and offsets.
        const std::size_t at =
            random() % (flip % 2 == 0 ? std::min<std::size_t>(64, bad.size()) : bad.size());
        bad[at] = static_cast<char>(bad[at] ^ (1 << random() % 8));
      }
      SCOPED_TRACE(std::string(sample.format) + " round " + std::to_string(round));
      expectTrueOrKilled(bad);
    }
  }
}

TEST_F(HostileTest, NoiseAfterFormatSignatureIsRefused) {
  using namespace std::string_literals;
  std::mt19937 random(20'002);
  for (const std::string& magic :
       {"\x89PNG\r\n\x1a\n"s, "\xff\xd8\xff\xe0"s, "BM"s, "II*\0"s, "MM\0*"s,
        "RIFF\0\1\0\0WEBPVP8 "s, "GIF89a"s, "\0\0\0\x0cjP  \r\n\x87\n"s, "\xff\x4f\xff\x51"s,
        "P5\n"s, "P6\n"s, "P7\n"s, "\x59\xa6\x6a\x95"s, "#?RADIANCE\n"s, "Pf\n"s, "v/1\1"s,
        "DICM"s}) {
    for (const std::size_t length : {8U, 300U, 70'000U}) {
      std::string content = magic;
      for (std::size_t i = 0; i < length; ++i) {
        content.push_back(static_cast<char>(random()));
      }
      expectRefused(content);
    }
  }
}

TEST_F(HostileTest, PicturesThatExceedMemoryAreRefused) {
  expectRefused(encode(".png", cv::Mat::zeros(17'000, 17'000, CV_8UC1)), probe);
}

TEST_F(HostileTest, HighlyCompressedPicturesEndInTime) {
  for (const char* format : {".png", ".webp", ".jpg", ".tiff"}) {
    write(encode(format, cv::Mat::zeros(12'000, 12'000, CV_8UC1)));
    const std::string said = bounded(probe(file_));
    EXPECT_TRUE(said == greyLine(12'000, 12'000) || said == kEmptyLine || said == "killed") << said;
  }
}

TEST_F(HostileTest, FullSizeProgressiveJpegIsDecoded) {
  write(jpegWithMoreScans(0));
  EXPECT_EQ(bounded(probe(file_)), greyLine(1024, 1024));
}

TEST_F(HostileTest, JpegWithManyScansEndsInTime) {
  write(jpegWithMoreScans(300));
  EXPECT_EQ(bounded(probe(file_)), "killed");
}

TEST_F(HostileTest, HeadersThatOverstateContentEndInTime) {
  for (const std::string& header :
       {std::string("P5\n2000000000 2000000000\n255\n"), std::string("P6\n30000 30000\n65535\n"),
        std::string("P5\n-1 -1\n255\n"),
        std::string("P7\nWIDTH 40000\nHEIGHT 40000\nDEPTH 4\nMAXVAL 255\nENDHDR\n"),
        std::string("Pf\n40000 40000\n-1.0\n")}) {
    expectRefused(header + "few bytes");
  }
  // A BMP file whose height says 30,000.
  std::string bitmap = encoded({".bmp", CV_8UC3});
  bitmap.replace(22, 4, std::string("\x30\x75\0\0", 4));
  expectTrueOrKilled(bitmap);
}

TEST_F(HostileTest, NonRegularFileIsRefused) {
  for (const char* path : {"/dev/null", "/proc/self/mem", "/", "/dev/full"}) {
    const Ended result = probe(path);
    EXPECT_TRUE(result.status > 128 || result.out == kEmptyLine) << path << " " << result.out;
  }
}

}  // namespace
}  // namespace kova::imageprobe
