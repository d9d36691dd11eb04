#pragma once

#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "Camera.h"
#include "Certificates.h"
#include "WebServer.h"

namespace kova::system_test {

/// A management server: HTTPS on the loopback interface, which the camera shares, only for clients
/// with a certificate of its authority. Serves files and keeps uploads.
class Manager {
 public:
  Manager();

  /// Installs a certificate and that of the authority on the camera and saves them to flash.
  void adopt(const Camera& camera) const;

  /// Serves `content` under fileUri(name).
  void serve(const std::string& name, const std::string& content);
  std::string fileUri(const std::string& name) const { return web_.uri("/files/" + name); }
  std::string uploadUri(const std::string& name) const { return web_.uri("/upload/" + name); }

  /// The file of the last upload under a name, if any.
  std::optional<std::string> received(const std::string& name) const;

 private:
  void serve(const httplib::Request& request, httplib::Response& response);
  void keep(const httplib::Request& request);

  engine::Identity authority_;
  engine::Identity server_;
  engine::Identity camera_;
  mutable std::mutex mutex_;
  std::map<std::string, std::string> files_;
  std::map<std::string, std::string> uploads_;
  engine::WebServer web_;  // last: its threads use the rest
};

/// The MD5 digest of a text, 32 lower-case hexadecimal digits.
std::string md5(const std::string& content);

}  // namespace kova::system_test
