// The probe as the daemon runs it, on pictures that OpenCV itself has made.

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <opencv2/core.hpp>
#include <opencv2/imgcodecs.hpp>
#include <string>
#include <vector>

#include "kova/utils/Process.h"

namespace {

class ProbeTest : public testing::Test {
 protected:
  void SetUp() override {
    folder_ = testing::TempDir() + "/imageprobe.XXXXXX";
    ASSERT_NE(mkdtemp(folder_.data()), nullptr);
    ASSERT_EQ(chmod(folder_.c_str(), 0755), 0);  // the probe reads as nobody
    file_ = folder_ + "/file";
  }
  void TearDown() override { std::filesystem::remove_all(folder_); }

  void write(const std::string& content) const {
    std::ofstream(file_, std::ios::binary | std::ios::trunc) << content;
  }

  /// A picture of one colour.
  static std::string picture(const std::string& format, int width, int height, int type = CV_8UC3) {
    std::vector<unsigned char> bytes;
    EXPECT_TRUE(cv::imencode(format, cv::Mat(height, width, type, cv::Scalar(9, 90, 200)), bytes));
    return {bytes.begin(), bytes.end()};
  }

  /// The one line about the file; "status N" for a probe that ends with another status than 0.
  std::string probe(const std::vector<std::string>& arguments) const {
    std::string out;
    std::string err;
    const int status = kova::utils::sysExec(KOVA_IMAGEPROBE, arguments, "", out, err, 20'000, 0, 1);
    return status == 0 ? out : "status " + std::to_string(status);
  }
  std::string probe() const { return probe({file_}); }

  static std::string grey(int width, int height) {
    return "empty=0 channels=1 depth=0 width=" + std::to_string(width) +
           " height=" + std::to_string(height) + "\n";
  }

  static constexpr char kEmpty[] = "empty=1 channels=1 depth=0 width=0 height=0\n";

  std::string folder_;
  std::string file_;
};

TEST_F(ProbeTest, CommonFormatsAndDepthsBecomeGrey) {
  for (const char* format : {".png", ".jpg", ".bmp", ".webp", ".tiff", ".jp2"}) {
    for (const int type : {CV_8UC1, CV_8UC3}) {
      write(picture(format, 64, 48, type));
      EXPECT_EQ(probe(), grey(64, 48)) << format << " " << type;
    }
  }
  for (const int type : {CV_8UC4, CV_16UC1, CV_16UC4}) {
    write(picture(".png", 64, 48, type));
    EXPECT_EQ(probe(), grey(64, 48)) << type;
  }
}

TEST_F(ProbeTest, ReportsSizeOfPicture) {
  for (const auto& [width, height] :
       {std::pair{1, 1}, {1024, 1024}, {1025, 1}, {1, 1025}, {3000, 2000}}) {
    write(picture(".png", width, height));
    EXPECT_EQ(probe(), grey(width, height));
  }
}

TEST_F(ProbeTest, OtherFilesAreEmptyPictures) {
  EXPECT_EQ(probe(), kEmpty) << "there is no file";
  const std::string good = picture(".png", 64, 48);
  for (const std::string& content : {std::string(), std::string("no picture"), good.substr(0, 20),
                                     std::string(100'000, '\xff'), "x" + good}) {
    write(content);
    EXPECT_EQ(probe(), kEmpty);
  }
}

TEST_F(ProbeTest, PictureThatExhaustsMemoryIsEmpty) {
  write(picture(".png", 20'000, 20'000, CV_8UC1));
  EXPECT_EQ(probe(), kEmpty);
}

TEST_F(ProbeTest, RootOnlyFileIsEmpty) {
  write(picture(".png", 64, 48));
  if (geteuid() != 0 || chown(file_.c_str(), 65534, 65534) != 0) {
    GTEST_SKIP() << "the probe stays who it is where there is no other user to become";
  }
  ASSERT_EQ(chown(file_.c_str(), 0, 0), 0);
  ASSERT_EQ(chmod(file_.c_str(), 0600), 0);
  EXPECT_EQ(probe(), kEmpty);
}

TEST_F(ProbeTest, PlantedFileIsEmpty) {
  const std::string planted = folder_ + "/planted";
  write(picture(".png", 64, 48));
  std::filesystem::create_symlink(file_, planted);
  EXPECT_EQ(probe({planted}), kEmpty) << "a link";
  std::filesystem::remove(planted);
  std::filesystem::create_hard_link(file_, planted);
  EXPECT_EQ(probe({planted}), kEmpty) << "a second name";
  std::filesystem::remove(planted);
  ASSERT_EQ(mkfifo(planted.c_str(), 0666), 0);
  EXPECT_EQ(probe({planted}), kEmpty) << "a pipe that nobody writes";
  EXPECT_EQ(probe(), grey(64, 48));
}

TEST_F(ProbeTest, TakesExactlyOneFile) {
  EXPECT_EQ(probe({}), "status 2");
  EXPECT_EQ(probe({file_, file_}), "status 2");
}

}  // namespace
