// OpenSSL 3 deprecates the incremental MD5 calls. The digest only detects corruption, and these
// calls need no provider.
#define OPENSSL_SUPPRESS_DEPRECATED
#include "md5sum.h"

#include <openssl/md5.h>

#include <algorithm>
#include <array>
#include <cerrno>

#include "kova/logger/Logger.h"
#include "kova/utils/File.h"
#include "kova/utils/Strings.h"

namespace kova::ctlserver {
namespace {

constexpr char kLogIdentity[] = "kova_ctlserver";
constexpr char kLogUnit[] = "md5sum";
constexpr char kMd5sum[] = "md5sum";  // kept: 15
constexpr std::uint64_t kChunk = 16384;

bool digestContent(const std::string& path, utils::File& file, MD5_CTX& context) {
  std::array<unsigned char, kChunk> buffer;
  while (!file.IsEOF()) {
    const std::uint64_t before = file.Cursor();
    if (!file.ReadBuffer(buffer.data(), std::min(file.Size() - before, kChunk))) {
      KOVA_LOG_IN(kMd5sum, LOG_ERR, errno, "Failed to read from %s", path.c_str());
      return false;
    }
    const std::uint64_t count = file.Cursor() - before;
    if (MD5_Update(&context, buffer.data(), count) != 1) {
      KOVA_LOG_IN(kMd5sum, LOG_ERR, 0, "Failed to compute md5 of %s at cursor %d, sz=%d",
                  path.c_str(), static_cast<int>(before), static_cast<int>(count));
      return false;
    }
  }
  return true;
}

}  // namespace

bool md5sum(const std::string& path, std::string& out) {
  MD5_CTX context;
  if (MD5_Init(&context) != 1) {
    KOVA_LOG(LOG_ERR, 0, "Failed to initialize md5");
    return false;
  }
  utils::File file;
  if (!file.Initialize(path, utils::FILE_OPEN_MODE_READ, 0)) {
    KOVA_LOG(LOG_ERR, errno, "Failed to open %s", path.c_str());
    return false;
  }
  if (!digestContent(path, file, context)) {
    return false;
  }
  std::array<unsigned char, MD5_DIGEST_LENGTH> digest;
  if (MD5_Final(digest.data(), &context) != 1) {
    KOVA_LOG(LOG_ERR, 0, "Failed to compute md5 of %s", path.c_str());
    return false;
  }
  out = utils::hexadecimal(digest);
  return true;
}

}  // namespace kova::ctlserver
