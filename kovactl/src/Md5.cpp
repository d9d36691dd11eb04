#include "Md5.h"

#include <openssl/evp.h>

#include <array>
#include <cerrno>

#include "kova/utils/File.h"

namespace kova::ctl {

bool md5OfFile(const std::string& path, std::string& digest) {
  std::string content;
  if (!utils::File::ReadStringAll(path, content)) {
    return false;
  }
  std::array<unsigned char, EVP_MAX_MD_SIZE> bytes{};
  unsigned length = 0;
  if (EVP_Digest(content.data(), content.size(), bytes.data(), &length, EVP_md5(), nullptr) != 1) {
    errno = ENOTSUP;
    return false;
  }
  constexpr std::string_view kDigits = "0123456789abcdef";
  digest.clear();
  for (unsigned i = 0; i < length; ++i) {
    digest += kDigits[bytes[i] >> 4U];
    digest += kDigits[bytes[i] & 0xFU];
  }
  return true;
}

}  // namespace kova::ctl
