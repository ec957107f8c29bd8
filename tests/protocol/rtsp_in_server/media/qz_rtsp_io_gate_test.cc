#include "protocol/rtsp_in_server/media/qz_rtsp_io_gate.h"

#include <deque>
#include <functional>
#include <memory>
#include <string>

#include "gtest/gtest.h"

namespace qz_rtsp_internal_server {
namespace {

// A network thread that runs only when the test says: work posted while a
// batch waits joins it, the poster is asked once per batch, batches run in
// order, what waits for a stalled thread is bounded, and nothing passes a
// closed gate.
TEST(RtspIoGateTest, BatchesRunInOrderWithinTheBound) {
  std::deque<std::function<void()>> handed;  // a deque: a batch may add to it while it runs
  auto gate = std::make_shared<RtspIoGate>(
      [&handed](std::function<void()> batch) { handed.push_back(std::move(batch)); }, 3);
  std::string ran;
  const auto add = [&ran](char c) { return [&ran, c] { ran += c; }; };
  int accepted = 0;
  for (char c : std::string("abcdef")) {
    accepted += gate->Post(add(c)) ? 1 : 0;
  }
  EXPECT_EQ(accepted, 3);
  EXPECT_EQ(gate->pending(), 3u);
  EXPECT_TRUE(gate->Post(add('!'), false));  // control items pass a full gate
  ASSERT_EQ(handed.size(), 1u);              // one batch, however much was posted
  handed[0]();
  EXPECT_EQ(ran, "abc!");
  EXPECT_EQ(gate->pending(), 0u);
  // Posted while the batch runs: a batch of its own.
  gate->Post([&] {
    gate->Post(add('e'));
    ran += 'd';
  });
  ASSERT_EQ(handed.size(), 2u);
  handed[1]();
  ASSERT_EQ(handed.size(), 3u);
  handed[2]();
  EXPECT_EQ(ran, "abc!de");
  EXPECT_TRUE(gate->Post(add('x')));
  gate->Close();
  EXPECT_FALSE(gate->Post(add('y')));
  EXPECT_FALSE(gate->Post(add('z'), false));
  ASSERT_EQ(handed.size(), 4u);
  handed[3]();  // handed over before Close(): still runs
  EXPECT_EQ(ran, "abc!dex");
}

}  // namespace
}  // namespace qz_rtsp_internal_server
