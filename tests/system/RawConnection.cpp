#include "RawConnection.h"

#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>

#include <cerrno>

namespace kova::system_test {

namespace {

using namespace std::string_literals;

constexpr timeval kPatience{10, 0};
constexpr char kLittleEndian = 'l';
constexpr char kMethodCall = 1;
constexpr char kNoFlags = 0;
constexpr char kVersion = 1;
// Codes of header fields.
constexpr char kPath = 1;
constexpr char kInterface = 2;
constexpr char kMember = 3;
constexpr char kDestination = 6;
constexpr char kSignature = 8;

}  // namespace

Marshaller& Marshaller::byte(char content) {
  data_ += content;
  return *this;
}

Marshaller& Marshaller::number(std::uint32_t content) {
  align(4);
  for (int shift = 0; shift < 32; shift += 8) {
    byte(static_cast<char>(content >> shift & 0xff));
  }
  return *this;
}

Marshaller& Marshaller::string(const std::string& content) {
  number(static_cast<std::uint32_t>(content.size()));
  data_ += content + '\0';
  return *this;
}

Marshaller& Marshaller::field(char code, char type, const std::string& content) {
  align(8).byte(code).byte(1).byte(type).byte('\0');
  if (type != 'g') {
    return string(content);
  }
  byte(static_cast<char>(content.size()));
  data_ += content + '\0';
  return *this;
}

Marshaller& Marshaller::align(std::size_t boundary) {
  data_.resize((data_.size() + boundary - 1) / boundary * boundary, '\0');
  return *this;
}

RawConnection::RawConnection(const std::string& socketPath)
    : socket_(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  socketPath.copy(address.sun_path, sizeof address.sun_path - 1);
  setsockopt(socket_.get(), SOL_SOCKET, SO_RCVTIMEO, &kPatience, sizeof kPatience);
  connected_ =
      connect(socket_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
}

bool RawConnection::login() {
  const Destination bus = {"org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
                           "Hello"};
  return connected_ && send("\0AUTH EXTERNAL\r\nDATA\r\n"s) && receive("OK ") &&
         send("BEGIN\r\n" + message(bus, "", "", 0)) && receive(":1.");
}

bool RawConnection::call(const std::string& signature, const std::string& body,
                         std::size_t claimedSize) {
  const Destination server = {"kova.kova_ctlserver", "/kova", "kova.Ipc1", "Send"};
  return send(message(server, signature, body, claimedSize));
}

bool RawConnection::send(const std::string& data) const {
  return ::send(socket_.get(), data.data(), data.size(), MSG_NOSIGNAL) ==
         static_cast<ssize_t>(data.size());
}

bool RawConnection::receive(const std::string& expected) {
  char chunk[4096];
  ssize_t got = 0;
  while (received_.find(expected) == std::string::npos &&
         (got = recv(socket_.get(), chunk, sizeof chunk, 0)) > 0) {
    received_.append(chunk, static_cast<std::size_t>(got));
  }
  return received_.find(expected) != std::string::npos;
}

bool RawConnection::waitForEnd() const {
  char chunk[4096];
  ssize_t got = 0;
  do {
    got = recv(socket_.get(), chunk, sizeof chunk, 0);
  } while (got > 0);
  return got == 0 || errno == ECONNRESET;
}

std::string RawConnection::message(const Destination& to, const std::string& signature,
                                   const std::string& body, std::size_t claimedSize) {
  Marshaller fields;
  fields.field(kPath, 'o', to.path).field(kInterface, 's', to.interface);
  fields.field(kMember, 's', to.member).field(kDestination, 's', to.name);
  if (!signature.empty()) {
    fields.field(kSignature, 'g', signature);
  }
  Marshaller head;
  head.byte(kLittleEndian).byte(kMethodCall).byte(kNoFlags).byte(kVersion);
  head.number(static_cast<std::uint32_t>(claimedSize)).number(++serial_);
  head.number(static_cast<std::uint32_t>(fields.data().size()));
  std::string whole = head.data() + fields.data();
  whole.resize((whole.size() + 7) / 8 * 8, '\0');
  return whole + body;
}

}  // namespace kova::system_test
