#pragma once

#include <gmock/gmock.h>

#include "../Wav.h"
#include "Manager.h"
#include "RawServer.h"
#include "Requester.h"
#include "SharedCamera.h"

namespace kova::system_test {

using variant::Variant;

/// An uncompressed grey picture (BMP, 8 bits per pixel) of the given size.
inline std::string picture(unsigned width, unsigned height, char shade = 'k') {
  using tests::number;
  const unsigned row = (width + 3) / 4 * 4;
  const unsigned start = 14 + 40 + 4 * 256;
  std::string palette;
  for (unsigned i = 0; i < 256; ++i) {
    palette += number(i * 0x010101U, 4);
  }
  return "BM" + number(start + row * height, 4) + number(0, 4) + number(start, 4) + number(40, 4) +
         number(width, 4) + number(height, 4) + number(1, 2) + number(8, 2) + number(0, 4) +
         number(row * height, 4) + number(0, 16) + palette +
         std::string(std::size_t{row} * height, shade);
}

/// A camera adopted by a management server, and an endpoint that requests transfers. The control
/// server must survive every test.
class TransferRig : public UnharmedCamera {
 public:
  static void SetUpTestSuite() {
    UnharmedCamera::SetUpTestSuite();
    manager_ = std::make_unique<Manager>();
    manager_->adopt(camera());
  }
  static void TearDownTestSuite() {
    UnharmedCamera::TearDownTestSuite();
    manager_.reset();
  }

 protected:
  void SetUp() override {
    UnharmedCamera::SetUp();
    requester_ = std::make_unique<Requester>(camera());
  }
  void TearDown() override {
    requester_.reset();
    for (const char* tool : {"cfgmtd", "fwupdate", "fwupdate.real", "support"}) {
      camera().behave(tool);
    }
    UnharmedCamera::TearDown();
  }

  static Manager& manager() { return *manager_; }
  Requester& requester() { return *requester_; }

  /// Serves a file and requests its installation with the correct digest.
  std::string put(const std::string& what, const std::string& content) {
    manager().serve("file", content);
    return requester().outcomeOf(
        {{"what", what}, {"uri", manager().fileUri("file")}, {"hash", md5(content)}});
  }

  static std::filesystem::path inside(const std::string& path) {
    return camera().root() / path.substr(1);
  }
  static bool exists(const std::filesystem::path& path) {
    return std::filesystem::exists(std::filesystem::symlink_status(path));
  }
  static std::vector<std::string> temporaries() {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(inside("/tmp"))) {
      names.push_back(entry.path().filename());
    }
    return names;
  }

 private:
  static inline std::unique_ptr<Manager> manager_;
  std::unique_ptr<Requester> requester_;
};

/// Answers every request at once with `body`, over plain HTTP.
class PlainServer : public engine::RawServer {
 public:
  explicit PlainServer(const std::string& body)
      : RawServer(engine::answering(engine::okResponse(body))) {}
};

}  // namespace kova::system_test
