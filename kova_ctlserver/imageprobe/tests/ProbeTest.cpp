// The probe as the daemon runs it, on pictures that OpenCV has encoded.

#include <unistd.h>

#include "ProbeFixture.h"

namespace kova::imageprobe {
namespace {

class ProbeTest : public ProbeFixture {
 protected:
  /// The probe's output for the file; "status N" if it ends with a status other than 0.
  static std::string said(const std::string& file) {
    const Ended result = probe(file);
    return result.status == 0 ? result.out : "status " + std::to_string(result.status);
  }
  /// Runs `words` in a shell after `first`, with standard error merged into the output.
  static Ended runLoudly(std::vector<std::string> words, const std::string& first = ":") {
    words.insert(words.begin(), {"/bin/sh", "-c", first + "; exec \"$0\" \"$@\" 2>&1"});
    return run(words);
  }
  static std::string picture(int width, int height) {
    return encode(".png", noise(width, height, CV_8UC3));
  }
};

TEST_F(ProbeTest, ReportsSizeOfPicture) {
  for (const auto& [width, height] :
       {std::pair{1, 1}, {1024, 1024}, {1025, 1}, {1, 1025}, {3000, 2000}}) {
    write(picture(width, height));
    EXPECT_EQ(said(file_), greyLine(width, height));
  }
}

TEST_F(ProbeTest, OtherFilesAreEmptyPictures) {
  EXPECT_EQ(runLoudly({KOVA_IMAGEPROBE, file_}).out, kEmptyLine) << "there is no file";
  const std::string good = picture(64, 48);
  for (const std::string& content : {std::string(), std::string("no picture"), good.substr(0, 20),
                                     std::string(100'000, '\xff'), "x" + good}) {
    write(content);
    EXPECT_EQ(said(file_), kEmptyLine);
  }
}

TEST_F(ProbeTest, RootOnlyFileIsEmpty) {
  write(picture(64, 48));
  if (geteuid() != 0 || chown(file_.c_str(), 65534, 65534) != 0) {
    GTEST_SKIP() << "the namespace maps no other user, so the probe keeps its own";
  }
  ASSERT_EQ(chown(file_.c_str(), 0, 0), 0);
  ASSERT_EQ(chmod(file_.c_str(), 0600), 0);
  EXPECT_EQ(said(file_), kEmptyLine);
}

TEST_F(ProbeTest, PlantedFileIsEmpty) {
  const std::string planted = folder_ / "planted";
  write(picture(64, 48));
  std::filesystem::create_symlink(file_, planted);
  EXPECT_EQ(said(planted), kEmptyLine) << "a link";
  std::filesystem::remove(planted);
  std::filesystem::create_hard_link(file_, planted);
  EXPECT_EQ(said(planted), kEmptyLine) << "a second name";
  std::filesystem::remove(planted);
  ASSERT_EQ(mkfifo(planted.c_str(), 0666), 0);
  EXPECT_EQ(said(planted), kEmptyLine) << "a pipe that nobody writes";
  EXPECT_EQ(said(file_), greyLine(64, 48));
}

TEST_F(ProbeTest, UnconfinedProbeDecodesNothing) {
  write(picture(64, 48));
  const Ended result = runLoudly({KOVA_IMAGEPROBE, file_}, "ulimit -d 200000");
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.out,
            "kova_imageprobe: cannot give up its privileges: Operation not permitted\n");
}

TEST_F(ProbeTest, TakesExactlyOneFile) {
  for (const Ended& result :
       {runLoudly({KOVA_IMAGEPROBE}), runLoudly({KOVA_IMAGEPROBE, file_, file_})}) {
    EXPECT_EQ(result.status, 2);
    EXPECT_EQ(result.out, "usage: kova_imageprobe FILE\n");
  }
}

}  // namespace
}  // namespace kova::imageprobe
