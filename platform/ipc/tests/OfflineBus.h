#pragma once

#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <string>
#include <string_view>

#include "../src/SdBus.h"

namespace kova::ipc::testing {

/// A connection without a bus: sd-bus has one end, and at the other end the test reads and writes
/// raw messages (D-Bus specification, "Message Format").
class OfflineBus {
 public:
  OfflineBus() {
    std::array<int, 2> ends{};
    sd_bus* created = nullptr;
    check(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends.data()));
    peer_ = ends[1];
    check(sd_bus_new(&created));
    bus_.reset(created);
    check(sd_bus_set_fd(created, ends[0], ends[0]));
    check(sd_bus_set_server(created, 1, sd_id128_t{.bytes = {1}}));
    check(sd_bus_set_anonymous(created, 1));
    check(sd_bus_start(created));
    login();
  }
  ~OfflineBus() { close(peer_); }
  OfflineBus(const OfflineBus&) = delete;
  OfflineBus& operator=(const OfflineBus&) = delete;

  /// An empty message.
  MessagePtr newMessage() {
    sd_bus_message* created = nullptr;
    check(sd_bus_message_new_signal(bus_.get(), &created, "/kova", "kova.Ipc1", "Broadcast"));
    return MessagePtr(created);
  }

  /// The marshalled body of a message.
  std::string marshal(sd_bus_message* message) {
    check(sd_bus_send(bus_.get(), message, nullptr));
    std::string bytes;
    for (std::size_t needed = kFixedHeader; bytes.size() < needed;) {
      readInto(bytes, needed);
      if (bytes.size() >= kFixedHeader) {
        needed = bodyStart(bytes) + numberAt(bytes, 4);
      }
    }
    return bytes.substr(bodyStart(bytes));
  }

  /// A message with this signature and body as received by sd-bus; null if sd-bus rejects it.
  MessagePtr receive(std::string_view signature, std::string_view body) {
    const std::string bytes = header(signature, body.size()).append(body);
    std::size_t written = 0;
    for (int idle = 0; idle < 2;) {
      const ssize_t put = write(peer_, bytes.data() + written, bytes.size() - written);
      written += put > 0 ? static_cast<std::size_t>(put) : 0;
      sd_bus_message* taken = nullptr;
      const int result = sd_bus_process(bus_.get(), &taken);
      if (taken != nullptr) {
        return MessagePtr(taken);
      }
      check(result);
      idle = result == 0 && written == bytes.size() ? idle + 1 : 0;
    }
    return nullptr;
  }

  /// The same for a message made by sd-bus.
  MessagePtr roundtrip(sd_bus_message* message) {
    const char* signature = sd_bus_message_get_signature(message, 1);
    return receive(signature, marshal(message));
  }

 private:
  static constexpr std::size_t kFixedHeader = 16;

  static void check(int result) {
    if (result < 0) {
      throw std::runtime_error(explain("offline bus", result));
    }
  }

  static std::uint32_t numberAt(const std::string& bytes, std::size_t at) {
    std::uint32_t number = 0;
    std::memcpy(&number, bytes.data() + at, sizeof number);
    return number;
  }
  static std::size_t bodyStart(const std::string& bytes) {
    return (kFixedHeader + numberAt(bytes, 12) + 7) / 8 * 8;
  }
  static void putNumber(std::string& bytes, std::size_t number) {
    const auto narrow = static_cast<std::uint32_t>(number);
    bytes.append(reinterpret_cast<const char*>(&narrow), sizeof narrow);
  }
  static void putField(std::string& fields, char code, char type, std::string_view value) {
    fields.resize((fields.size() + 7) / 8 * 8);
    fields.append({code, 1, type, 0});
    if (type == 'g') {
      fields.push_back(static_cast<char>(value.size()));
    } else {
      putNumber(fields, value.size());
    }
    fields.append(value).push_back('\0');
  }

  static std::string header(std::string_view signature, std::size_t bodySize) {
    std::string fields;
    putField(fields, 1, 'o', "/kova");
    putField(fields, 2, 's', "kova.Ipc1");
    putField(fields, 3, 's', "Broadcast");
    putField(fields, 8, 'g', signature);
    const bool little = __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__;
    constexpr char kSignal = 4;
    constexpr char kVersion = 1;
    std::string header{little ? 'l' : 'B', kSignal, 0, kVersion};
    putNumber(header, bodySize);
    putNumber(header, 1);
    putNumber(header, fields.size());
    header += fields;
    header.resize((header.size() + 7) / 8 * 8);
    return header;
  }

  void readInto(std::string& bytes, std::size_t needed) {
    std::string chunk(needed - bytes.size(), '\0');
    const ssize_t got = read(peer_, chunk.data(), chunk.size());
    if (got > 0) {
      bytes.append(chunk, 0, static_cast<std::size_t>(got));
    } else {
      check(sd_bus_process(bus_.get(), nullptr));
    }
  }

  void login() {
    constexpr std::string_view kLines("\0AUTH ANONYMOUS\r\nBEGIN\r\n", 24);
    check(write(peer_, kLines.data(), kLines.size()) == 24 ? 0 : -EIO);
    while (sd_bus_is_ready(bus_.get()) == 0) {
      check(sd_bus_process(bus_.get(), nullptr));
    }
    std::array<char, 256> greeting{};
    check(read(peer_, greeting.data(), greeting.size()) > 0 ? 0 : -EIO);
  }

  BusPtr bus_;
  int peer_ = -1;
};

}  // namespace kova::ipc::testing
