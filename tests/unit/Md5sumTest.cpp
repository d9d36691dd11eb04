#include "md5sum.h"

#include <openssl/evp.h>
#include <openssl/md5.h>
#include <sys/stat.h>

#include <array>
#include <cerrno>

#include "TransferFixture.h"

namespace {

/// Which OpenSSL call fails; `update` counts from 1, 0: none.
struct Faults {
  bool init = false;
  int update = 0;
  bool final = false;
} faults;

}  // namespace

extern "C" {
int __real_MD5_Init(MD5_CTX* context);
int __real_MD5_Update(MD5_CTX* context, const void* data, size_t length);
int __real_MD5_Final(unsigned char* digest, MD5_CTX* context);

int __wrap_MD5_Init(MD5_CTX* context) {
  return faults.init ? 0 : __real_MD5_Init(context);
}
int __wrap_MD5_Update(MD5_CTX* context, const void* data, size_t length) {
  return faults.update != 0 && --faults.update == 0 ? 0 : __real_MD5_Update(context, data, length);
}
int __wrap_MD5_Final(unsigned char* digest, MD5_CTX* context) {
  return faults.final ? 0 : __real_MD5_Final(digest, context);
}
}

namespace kova::ctlserver {
namespace {

constexpr char kFile[] = "/tmp/file";

std::string expected(const std::string& content) {
  std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
  unsigned length = 0;
  EVP_Digest(content.data(), content.size(), digest.data(), &length, EVP_md5(), nullptr);
  std::string text;
  for (unsigned i = 0; i < length; ++i) {
    std::array<char, 3> byte{};
    std::snprintf(byte.data(), byte.size(), "%02x", digest[i]);
    text += byte.data();
  }
  return text;
}

class Md5sumTest : public TransferTest {
 protected:
  void TearDown() override { faults = {}; }

  static std::string of(const std::string& content) {
    write(kFile, content);
    std::string digest;
    EXPECT_TRUE(md5sum(kFile, digest));
    return digest;
  }

  static void expectFailure(const std::string& path, const std::string& text) {
    std::string digest = "unchanged";
    EXPECT_FALSE(md5sum(path, digest));
    EXPECT_EQ(digest, "unchanged");
    EXPECT_THAT(logged(), ElementsAre("3 md5sum.md5sum: " + text));
  }
};

TEST_F(Md5sumTest, MatchesRfcVectors) {
  EXPECT_EQ(of(""), "d41d8cd98f00b204e9800998ecf8427e");
  EXPECT_EQ(of("a"), "0cc175b9c0f1b6a831c399e269772661");
  EXPECT_EQ(of("abc"), "900150983cd24fb0d6963f7d28e17f72");
  EXPECT_EQ(of("message digest"), "f96b697d7cb7938d525a2f31aaf161d0");
  EXPECT_EQ(of("12345678901234567890123456789012345678901234567890123456789012345678901234567890"),
            "57edf4a22be3c955ac49da2e2107b67a");
}

TEST_F(Md5sumTest, MatchesAroundChunkBoundaries) {
  for (const std::size_t size : {16383U, 16384U, 16385U, 32768U, 32769U, 1048577U}) {
    std::string content(size, '\0');
    for (std::size_t i = 0; i < size; ++i) {
      content[i] = static_cast<char>(i * 31 + i / 251);
    }
    EXPECT_EQ(of(content), expected(content)) << size;
  }
  EXPECT_THAT(platform().log, IsEmpty());
}

TEST_F(Md5sumTest, MissingFileOrFolderCannotBeOpened) {
  expectFailure("/tmp/none", "Failed to open /tmp/none");
  EXPECT_EQ(platform().log.front().error, ENOENT);
  fakes::reset();
  expectFailure("/tmp", "Failed to open /tmp");
}

TEST_F(Md5sumTest, ShrunkFileCannotBeRead) {
  // stat(2) reports a size of one page for sysfs files, whatever their content.
  constexpr char kShort[] = "/sys/kernel/uevent_seqnum";
  struct stat status {};
  ASSERT_EQ(stat(kShort, &status), 0);
  ASSERT_EQ(status.st_size, 4096);
  expectFailure(kShort, std::string("Failed to read from ") + kShort);
  EXPECT_EQ(platform().log.front().error, EIO);
}

TEST_F(Md5sumTest, EveryDigestFailureIsDistinct) {
  write(kFile, std::string(40000, 'x'));
  faults.init = true;
  expectFailure(kFile, "Failed to initialize md5");

  fakes::reset();
  faults = {};
  faults.update = 1;
  expectFailure(kFile, "Failed to compute md5 of /tmp/file at cursor 0, sz=16384");
  fakes::reset();
  faults.update = 3;
  expectFailure(kFile, "Failed to compute md5 of /tmp/file at cursor 32768, sz=7232");

  fakes::reset();
  faults.final = true;
  expectFailure(kFile, "Failed to compute md5 of /tmp/file");
}

}  // namespace
}  // namespace kova::ctlserver
