#pragma once

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <opencv2/core.hpp>
#include <opencv2/imgcodecs.hpp>
#include <string>
#include <vector>

#include "../../../platform/utils/tests/TemporaryFolder.h"
#include "ProbeRun.h"

namespace kova::imageprobe {

/// A file for the probe, readable by nobody, in a temporary folder.
class ProbeFixture : public testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(chmod(folder_.path().c_str(), 0755), 0); }

  void write(const std::string& content) const { tests::writeText(file_, content); }

  static std::string encode(const std::string& format, const cv::Mat& image,
                            const std::vector<int>& how = {}) {
    std::vector<unsigned char> bytes;
    EXPECT_TRUE(cv::imencode(format, image, bytes, how)) << format;
    return {bytes.begin(), bytes.end()};
  }
  static cv::Mat noise(int width, int height, int type) {
    cv::Mat image(height, width, type);
    cv::RNG(7).fill(image, cv::RNG::UNIFORM, 0, CV_MAT_DEPTH(type) == CV_32F ? 1 : 255);
    return image;
  }

  const tests::TemporaryFolder folder_;
  const std::string file_ = folder_ / "file";
};

}  // namespace kova::imageprobe
