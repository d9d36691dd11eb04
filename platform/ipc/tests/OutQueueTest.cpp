#include "../src/OutQueue.h"

#include <gtest/gtest.h>

#include "SyslogRecorder.h"

namespace kova::ipc {
namespace {

constexpr std::size_t kMaxBytes = std::size_t{8} << 20;

messages::BaseRequestMessage numbered(std::uint64_t id) {
  messages::BaseRequestMessage message;
  message.id(id);
  return message;
}

TEST(OutQueueTest, ReturnsMessagesInOrderAndOnce) {
  OutQueue queue;
  queue.put("a", numbered(1), 10);
  queue.put("b", numbered(2), 10);
  queue.put("a", numbered(3), 10);
  auto taken = queue.take("a");
  ASSERT_EQ(taken.size(), 2U);
  EXPECT_EQ(taken[0].id(), 1U);
  EXPECT_EQ(taken[1].id(), 3U);
  EXPECT_TRUE(queue.take("a").empty());
  EXPECT_EQ(queue.take("b").size(), 1U);
}

TEST(OutQueueTest, KeepsNewest256PerDestinationAndLogsOthers) {
  tests::records.clear();
  OutQueue queue;
  for (std::uint64_t id = 0; id < 300; ++id) {
    auto message = numbered(id);
    message.functionName("Play" + std::to_string(id));
    queue.put("a", message, 10);
  }
  // The logger may first write counts of earlier lines.
  std::erase_if(tests::records, [](const auto& record) { return record.text.ends_with(" times"); });
  ASSERT_EQ(tests::records.size(), 44U);
  for (std::size_t i = 0; i < tests::records.size(); ++i) {
    const auto& record = tests::records[i];
    EXPECT_EQ(record.priority, 4);
    EXPECT_TRUE(record.text.ends_with(": Dropped \"Play" + std::to_string(i) +
                                      "\" that waited for \"a\": too many messages are waiting"))
        << record.text;
  }
  auto taken = queue.take("a");
  ASSERT_EQ(taken.size(), 256U);
  EXPECT_EQ(taken.front().id(), 44U);
  EXPECT_EQ(taken.back().id(), 299U);
}

TEST(OutQueueTest, DropsLongestWaitingOfTooManyDestinations) {
  OutQueue queue;
  for (std::size_t i = 0; i < 66; ++i) {
    queue.put("d" + std::to_string(i), numbered(i), i == 0 ? kMaxBytes / 2 : 10);
  }
  EXPECT_TRUE(queue.take("d0").empty());
  EXPECT_TRUE(queue.take("d1").empty());
  queue.put("d66", numbered(66), kMaxBytes - 1'000);
  for (std::size_t i = 2; i < 67; ++i) {
    EXPECT_EQ(queue.take("d" + std::to_string(i)).size(), i == 2 ? 0U : 1U) << i;
  }
}

TEST(OutQueueTest, DropsOldestBeyondByteLimit) {
  OutQueue queue;
  constexpr std::size_t kHalf = kMaxBytes / 2;
  queue.put("a", numbered(1), kHalf);
  queue.put("b", numbered(2), kHalf - 1);
  queue.put("b", numbered(3), 1);
  queue.put("c", numbered(4), 1);
  queue.put("d", numbered(5), kHalf);
  EXPECT_TRUE(queue.take("a").empty());
  EXPECT_EQ(queue.take("b").size(), 1U);
  EXPECT_EQ(queue.take("c").size(), 1U);
  EXPECT_EQ(queue.take("d").size(), 1U);
}

TEST(OutQueueTest, TakenMessagesFreeSpace) {
  constexpr std::size_t kHalf = kMaxBytes / 2;
  OutQueue queue;
  queue.put("a", numbered(1), kMaxBytes);
  EXPECT_EQ(queue.take("a").size(), 1U);
  queue.put("b", numbered(2), kHalf);
  queue.put("c", numbered(3), kHalf);
  EXPECT_EQ(queue.take("b").size(), 1U);
  EXPECT_EQ(queue.take("c").size(), 1U);
}

}  // namespace
}  // namespace kova::ipc
