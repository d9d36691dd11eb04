#include "OutQueue.h"

#include <algorithm>

#include "kova/logger/Logger.h"

namespace kova::ipc {
namespace {

constexpr char kLogIdentity[] = "kova_ipc";
constexpr char kLogUnit[] = "OutQueue";

}  // namespace

OutQueue::Destinations::iterator OutQueue::find(const std::string& destination) {
  return std::find_if(destinations_.begin(), destinations_.end(),
                      [&](const Destination& waiting) { return waiting.name == destination; });
}

void OutQueue::dropOldest(Destination& destination, const char* why) {  // kept: 15
  Waiting& oldest = destination.messages.front();
  KOVA_LOG_IN("DropOldest", LOG_WARNING, 0, "Dropped \"%s\" that waited for \"%s\": %s",
              oldest.message.functionName().c_str(), destination.name.c_str(), why);
  bytes_ -= oldest.bytes;
  destination.messages.pop_front();
}

void OutQueue::dropDestination(Destinations::iterator destination, const char* why) {
  while (!destination->messages.empty()) {
    dropOldest(*destination, why);
  }
  destinations_.erase(destination);
}

void OutQueue::makeRoom(std::size_t bytes) {
  while (!destinations_.empty() && bytes_ + bytes > kMaxBytes) {
    dropOldest(destinations_.front(), "too many bytes are waiting");
    if (destinations_.front().messages.empty()) {
      destinations_.pop_front();
    }
  }
}

void OutQueue::put(const std::string& destination, messages::BaseRequestMessage message,
                   std::size_t bytes) {
  makeRoom(bytes);
  auto found = find(destination);
  if (found == destinations_.end()) {
    if (destinations_.size() == kMaxDestinations) {
      dropDestination(destinations_.begin(), "too many destinations are absent");
    }
    found = destinations_.insert(destinations_.end(), Destination{destination, {}});
  }
  if (found->messages.size() == kMaxPerDestination) {
    dropOldest(*found, "too many messages are waiting");
  }
  found->messages.push_back({std::move(message), bytes});
  bytes_ += bytes;
}

OutQueue::Messages OutQueue::take(const std::string& destination) {
  Messages taken;
  const auto found = find(destination);
  if (found == destinations_.end()) {
    return taken;
  }
  for (auto& waiting : found->messages) {
    bytes_ -= waiting.bytes;
    taken.push_back(std::move(waiting.message));
  }
  destinations_.erase(found);
  return taken;
}

}  // namespace kova::ipc
