#pragma once

#include <cstddef>
#include <deque>
#include <list>
#include <string>

#include "kova/messages/BaseMessage.h"

namespace kova::ipc {

/// Messages waiting for endpoints that are not on the bus yet. When a limit is exceeded, the oldest
/// messages are dropped, and every drop is logged.
class OutQueue {
 public:
  static constexpr std::size_t kMaxPerDestination = 256;
  /// Clients choose the destination of their events, and must not exhaust the memory with names.
  static constexpr std::size_t kMaxDestinations = 64;
  /// Marshalled size of all waiting messages together, in bytes.
  static constexpr std::size_t kMaxBytes = std::size_t{8} * 1024 * 1024;

  using Messages = std::deque<messages::BaseRequestMessage>;

  /// @param bytes marshalled size of the message
  void put(const std::string& destination, messages::BaseRequestMessage message, std::size_t bytes);
  /// Removes and returns the messages waiting for the destination, oldest first.
  Messages take(const std::string& destination);

 private:
  struct Waiting {
    messages::BaseRequestMessage message;
    std::size_t bytes;
  };
  struct Destination {
    std::string name;
    std::deque<Waiting> messages;
  };
  using Destinations = std::list<Destination>;

  Destinations::iterator find(const std::string& destination);
  void dropOldest(Destination& destination, const char* why);
  void dropDestination(Destinations::iterator destination, const char* why);
  void makeRoom(std::size_t bytes);

  Destinations destinations_;  ///< longest waiting first
  std::size_t bytes_ = 0;
};

}  // namespace kova::ipc
