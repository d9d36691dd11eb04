#pragma once

#include <cstdint>
#include <string>

#include "kova/utils/UniqueFd.h"

namespace kova::system_test {

/// Marshals by hand, little-endian, valid or not (D-Bus specification, "Message Format").
class Marshaller {
 public:
  Marshaller& byte(char content);
  Marshaller& number(std::uint32_t content);
  /// Appends the length, the content and a NUL; does not validate the content.
  Marshaller& string(const std::string& content);
  /// Appends a header field; `type` is 'o', 's' or 'g'.
  Marshaller& field(char code, char type, const std::string& content);
  Marshaller& align(std::size_t boundary);

  const std::string& data() const { return data_; }

 private:
  std::string data_;
};

/// A connection to a camera's bus without a library, for messages that none would send.
class RawConnection {
 public:
  explicit RawConnection(const std::string& socketPath);

  bool login();
  /// Calls the control server's Send.
  /// @param claimedSize the size of the body according to the header
  bool call(const std::string& signature, const std::string& body, std::size_t claimedSize);
  bool call(const std::string& signature, const std::string& body) {
    return call(signature, body, body.size());
  }
  /// Whether these bytes arrive in time.
  bool receive(const std::string& expected);
  /// Whether the bus closes the connection in time.
  bool waitForEnd() const;

 private:
  struct Destination {
    std::string name, path, interface, member;
  };

  bool send(const std::string& data) const;
  std::string message(const Destination& to, const std::string& signature, const std::string& body,
                      std::size_t claimedSize);

  utils::UniqueFd socket_;
  bool connected_ = false;
  std::uint32_t serial_ = 0;
  std::string received_;
};

}  // namespace kova::system_test
