#include "protocol/rtsp_in_server/media/qz_rtsp_io_gate.h"

#include <functional>
#include <memory>
#include <vector>

#include "gtest/gtest.h"

namespace qz_rtsp_internal_server {
namespace {

// A network thread that stalls: nothing posted runs until the test says.
TEST(RtspIoGateTest, WorkWaitingForAStalledThreadIsBounded) {
  std::vector<std::function<void()>> handed_over;
  auto gate = std::make_shared<RtspIoGate>(
      [&handed_over](std::function<void()> batch) { handed_over.push_back(std::move(batch)); }, 8);
  int ran = 0;
  int accepted = 0;
  for (int i = 0; i < 1000; ++i) {
    accepted += gate->Post([&ran] { ++ran; }) ? 1 : 0;
  }
  EXPECT_EQ(accepted, 8);
  EXPECT_EQ(gate->pending(), 8u);
  EXPECT_TRUE(gate->Post([&ran] { ran += 100; }, false));  // control items pass a full gate
  ASSERT_EQ(handed_over.size(), 1u);                       // one batch, however much was posted
  handed_over[0]();
  EXPECT_EQ(ran, 108);
  EXPECT_EQ(gate->pending(), 0u);
  EXPECT_TRUE(gate->Post([&ran] { ++ran; }));  // room again
  gate->Close();
  EXPECT_FALSE(gate->Post([&ran] { ++ran; }, false));
}

}  // namespace
}  // namespace qz_rtsp_internal_server
