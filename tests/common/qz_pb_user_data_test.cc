#include "common/qz_pb_user_data.h"

#include <atomic>
#include <cstring>
#include <thread>
#include <vector>

#include "gtest/gtest.h"

namespace {

using qz_common::PublisherUserData;
using qz_common::PublisherUserDataQueue;

std::shared_ptr<PublisherUserData> Text(const std::string& text) {
  auto item = std::make_shared<PublisherUserData>();
  EXPECT_TRUE(item->SetUTF8String(text));
  return item;
}

// Text keeps a terminating zero; binary data is copied, and empty data
// refused.
TEST(PublisherUserDataTest, TextAndBinary) {
  auto text = Text("caf\xC3\xA9");
  EXPECT_TRUE(text->IsUtf8String());
  EXPECT_EQ(text->Size(), 5);
  EXPECT_EQ(text->Data()[5], 0);
  EXPECT_STREQ(reinterpret_cast<const char*>(text->Data()), "caf\xC3\xA9");
  unsigned char bytes[] = {1, 0, 2};
  PublisherUserData item;
  ASSERT_TRUE(item.SetData(bytes, 3));
  bytes[0] = 9;
  EXPECT_FALSE(item.IsUtf8String());
  EXPECT_EQ(item.Size(), 3);
  EXPECT_EQ(item.Data()[0], 1);
  EXPECT_FALSE(item.SetData(nullptr, 3));
  EXPECT_FALSE(item.SetData(bytes, 0));
  EXPECT_EQ(item.Data(), nullptr);
}

// First in, first out, dropping the oldest when full; empty pointers and a
// queue without capacity take nothing.
TEST(PublisherUserDataQueueTest, FifoDropsOldestAndTakesNoEmptyPointer) {
  PublisherUserDataQueue queue(2);
  for (const char* t : {"a", "b", "c"}) {
    auto item = Text(t);
    queue.Push(item);
  }
  std::shared_ptr<PublisherUserData> empty;
  queue.Push(empty);  // would push "b" out
  EXPECT_EQ(queue.Size(), 2u);
  EXPECT_STREQ(reinterpret_cast<const char*>(queue.Pop()->Data()), "b");
  EXPECT_STREQ(reinterpret_cast<const char*>(queue.Pop()->Data()), "c");
  EXPECT_EQ(queue.Pop(), nullptr);
  auto item = Text("x");
  queue.Push(item);
  queue.Clear();
  EXPECT_EQ(queue.Pop(), nullptr);
  PublisherUserDataQueue none(0);
  none.Push(item);
  EXPECT_EQ(none.Size(), 0u);
}

// Oldest first and never repeated while a producer overruns the queue; the
// newest item is never the one dropped.
TEST(PublisherUserDataQueueTest, ConcurrentPushAndPop) {
  PublisherUserDataQueue queue(16);
  std::atomic<bool> done{false};
  std::thread producer([&] {
    for (int i = 0; i < 2000; ++i) {
      auto item = Text(std::to_string(i));
      queue.Push(item);
    }
    done = true;
  });
  int last = -1;
  while (!done || queue.Size() > 0) {
    if (auto item = queue.Pop()) {
      const int value = std::atoi(reinterpret_cast<const char*>(item->Data()));
      EXPECT_GT(value, last);
      last = value;
    }
  }
  producer.join();
  EXPECT_EQ(last, 1999);
}

}  // namespace
