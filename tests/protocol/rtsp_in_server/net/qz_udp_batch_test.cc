// The UDP batch sender over a real loopback socket: every datagram arrives
// intact and in order, in one system call per 64, segmented or not, and a
// socket that refuses them drops each one without stopping the rest.
#include "protocol/rtsp_in_server/net/qz_udp_batch.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "gtest/gtest.h"

namespace qz_rtsp_internal_server {
namespace {

// Each payload arrives as one datagram, in order.
void ExpectReceived(asio::ip::udp::socket& receiver, const std::vector<std::string>& payloads) {
  char buffer[2048];
  for (const std::string& p : payloads) {
    pollfd pfd{receiver.native_handle(), POLLIN, 0};
    ASSERT_EQ(poll(&pfd, 1, 1000), 1);
    const size_t n = receiver.receive(asio::buffer(buffer));
    ASSERT_EQ(std::string(buffer, n), p);
  }
}

TEST(UdpBatchTest, DatagramsArriveInOrderInFewCalls) {
  asio::io_context io;
  asio::ip::udp::socket receiver(io,
                                 asio::ip::udp::endpoint(asio::ip::make_address("127.0.0.1"), 0));
  receiver.set_option(asio::socket_base::receive_buffer_size(1 << 20));
  asio::ip::udp::socket sender(io, asio::ip::udp::endpoint(asio::ip::udp::v4(), 0));
  std::vector<std::string> payloads;
  for (int i = 0; i < 100; ++i) {
    payloads.push_back(std::string(static_cast<size_t>(100 + i), static_cast<char>('a' + i % 26)));
  }
  size_t total = 0;
  {
    UdpBatch batch(sender.native_handle());
    for (const std::string& p : payloads) {
      batch.Add(receiver.local_endpoint(), reinterpret_cast<const uint8_t*>(p.data()), p.size());
      total += p.size();
    }
    batch.Flush();
    EXPECT_EQ(batch.datagrams_sent(), 100u);
    EXPECT_EQ(batch.datagrams_dropped(), 0u);
    EXPECT_EQ(batch.bytes_sent(), total);
    EXPECT_EQ(batch.system_calls(), 2u);  // 64 + 36
  }
  ExpectReceived(receiver, payloads);
}

// Runs of same-size datagrams to one client leave as segmented messages;
// the receiver still gets each datagram on its own, in order.
struct GsoCase {
  const char* name;
  std::vector<size_t> sizes;  // of successive datagrams to one receiver
  bool no_checksum;           // the socket refuses segmentation
  size_t messages;            // messages the kernel took
  size_t calls;               // sendmmsg/sendmsg calls expected
  bool gso_after;
};

class UdpBatchGsoTest : public ::testing::TestWithParam<GsoCase> {};

TEST_P(UdpBatchGsoTest, EveryDatagramArrivesWhole) {
  const GsoCase& c = GetParam();
  asio::io_context io;
  asio::ip::udp::socket receiver(io,
                                 asio::ip::udp::endpoint(asio::ip::make_address("127.0.0.1"), 0));
  receiver.set_option(asio::socket_base::receive_buffer_size(4 << 20));
  asio::ip::udp::socket sender(io, asio::ip::udp::endpoint(asio::ip::udp::v4(), 0));
  if (c.no_checksum) {
    const int on = 1;  // UDP without checksums cannot be segmented
    ASSERT_EQ(setsockopt(sender.native_handle(), SOL_SOCKET, SO_NO_CHECK, &on, sizeof(on)), 0);
  }
  std::vector<std::string> payloads;
  for (size_t i = 0; i < c.sizes.size(); ++i) {
    payloads.push_back(std::string(c.sizes[i], static_cast<char>('a' + i % 26)));
  }
  bool gso = true;
  size_t reported = 0;
  {
    UdpBatch batch(sender.native_handle(), &gso,
                   [&](void*, size_t, bool sent) { reported += sent ? 1 : 0; });
    for (const std::string& p : payloads) {
      batch.Add(receiver.local_endpoint(), reinterpret_cast<const uint8_t*>(p.data()), p.size(),
                &batch);
    }
    batch.Flush();
    EXPECT_EQ(batch.datagrams_sent(), payloads.size());
    EXPECT_EQ(batch.messages_sent(), c.messages);
    EXPECT_EQ(batch.system_calls(), c.calls);
  }
  EXPECT_EQ(reported, payloads.size());
  EXPECT_EQ(gso, c.gso_after);
  ExpectReceived(receiver, payloads);
}

std::vector<size_t> Frame(size_t full, size_t count, size_t last) {
  std::vector<size_t> sizes(count, full);
  sizes.push_back(last);
  return sizes;
}

INSTANTIATE_TEST_SUITE_P(
    Runs,
    UdpBatchGsoTest,
    ::testing::Values(
        // A frame of 20 full packets and a short one: one message.
        GsoCase{"OneFrame", Frame(1412, 20, 300), false, 1, 1, true},
        // 100 packets pass the 64-segment limit: two messages, one call.
        GsoCase{"PastSegmentLimit", Frame(500, 99, 500), false, 2, 1, true},
        // A short packet ends a run; the next frame starts another.
        GsoCase{"TwoFrames", {1412, 1412, 200, 1412, 1412, 700, 1412}, false, 3, 1, true},
        // Growing sizes cannot be segmented: one message each.
        GsoCase{"GrowingSizes", {100, 200, 300, 400}, false, 4, 1, true},
        // The socket refuses segmentation: that message goes one datagram at a
        // time (1 failed sendmmsg + 5 sendmsg) and segmentation is switched off.
        GsoCase{"Refused", Frame(1000, 4, 10), true, 5, 6, false}),
    [](const ::testing::TestParamInfo<GsoCase>& info) { return std::string(info.param.name); });

TEST(UdpBatchTest, RefusedDatagramsAreDroppedOneByOne) {
  UdpBatch batch(-1);  // every send fails
  const uint8_t byte = 0;
  const asio::ip::udp::endpoint to(asio::ip::make_address("127.0.0.1"), 9);
  for (int i = 0; i < 5; ++i) {
    batch.Add(to, &byte, 1);
  }
  batch.Flush();
  EXPECT_EQ(batch.datagrams_sent(), 0u);
  EXPECT_EQ(batch.datagrams_dropped(), 5u);
  EXPECT_EQ(batch.bytes_sent(), 0u);
}

}  // namespace
}  // namespace qz_rtsp_internal_server
