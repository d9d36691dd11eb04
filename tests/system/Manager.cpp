#include "Manager.h"

#include <openssl/evp.h>

#include <array>
#include <stdexcept>

namespace kova::system_test {

Manager::Manager()
    : authority_(engine::makeIdentity({.host = "Test Authority", .authority = true})),
      server_(engine::makeIdentity({.issuer = &authority_})),
      camera_(engine::makeIdentity({.host = "camera", .issuer = &authority_})),
      web_({.identity = &server_, .clientCa = &authority_}) {
  web_.server().Get(R"(/files/(.*))",
                    [this](const auto& request, auto& response) { serve(request, response); });
  web_.server().Post(R"(/upload/(.*))", [this](const auto& request, auto&) { keep(request); });
  web_.server().set_payload_max_length(64UL * 1024 * 1024);
  web_.start();
}

void Manager::adopt(const Camera& camera) const {
  const auto folder = camera.root() / "etc/persistent";
  writeFile(folder / "server.pem", camera_.certificatePem() + camera_.keyPem());
  writeFile(folder / "controller.crt", authority_.certificatePem());
  if (camera.ctl({"save", "--sync"}).status != 0) {
    throw std::runtime_error("the camera cannot save its certificates");
  }
}

void Manager::serve(const std::string& name, const std::string& content) {
  const std::lock_guard lock(mutex_);
  files_[name] = content;
}

std::optional<std::string> Manager::received(const std::string& name) const {
  const std::lock_guard lock(mutex_);
  const auto found = uploads_.find(name);
  return found == uploads_.end() ? std::nullopt : std::optional(found->second);
}

void Manager::serve(const httplib::Request& request, httplib::Response& response) {
  const std::lock_guard lock(mutex_);
  const auto found = files_.find(request.matches[1]);
  if (found == files_.end()) {
    response.status = 404;
    response.set_content("no such file\n", "text/plain");
    return;
  }
  response.set_content(found->second, "application/octet-stream");
}

void Manager::keep(const httplib::Request& request) {
  const std::lock_guard lock(mutex_);
  uploads_[request.matches[1]] = request.get_file_value("payload").content;
}

std::string md5(const std::string& content) {
  std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
  unsigned length = 0;
  if (EVP_Digest(content.data(), content.size(), digest.data(), &length, EVP_md5(), nullptr) != 1) {
    throw std::runtime_error("no MD5");
  }
  std::string text;
  for (unsigned i = 0; i < length; ++i) {
    std::array<char, 3> byte{};
    std::snprintf(byte.data(), byte.size(), "%02x", digest[i]);
    text += byte.data();
  }
  return text;
}

}  // namespace kova::system_test
