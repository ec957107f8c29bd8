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

// Runs of same-size datagrams to one client leave as segmented messages;
// the receiver still gets each datagram on its own, in order.
struct BatchCase {
  const char* name;
  std::vector<size_t> sizes;  // of successive datagrams to one receiver
  bool segment;               // the caller's switch is given (else nullptr)
  bool no_checksum;           // the socket refuses segmentation
  size_t messages;            // messages the kernel took
  size_t calls;               // sendmmsg/sendmsg calls expected
  bool gso_after;
};

std::vector<size_t> Frame(size_t full, size_t count, size_t last) {
  std::vector<size_t> sizes(count, full);
  sizes.push_back(last);
  return sizes;
}

const BatchCase kCases[] = {
    // Without the switch nothing is merged: 64 messages a call.
    {"NoSwitch", Frame(500, 99, 500), false, false, 100, 2, true},
    // A frame of 20 full packets and a short one: one message.
    {"OneFrame", Frame(1412, 20, 300), true, false, 1, 1, true},
    // 100 packets pass the 64-segment limit: two messages, one call.
    {"PastSegmentLimit", Frame(500, 99, 500), true, false, 2, 1, true},
    // A short packet ends a run; the next frame starts another.
    {"TwoFrames", {1412, 1412, 200, 1412, 1412, 700, 1412}, true, false, 3, 1, true},
    // Growing sizes cannot be segmented: one message each.
    {"GrowingSizes", {100, 200, 300, 400}, true, false, 4, 1, true},
    // The socket refuses segmentation: that message goes one datagram at a
    // time (1 failed sendmmsg + 5 sendmsg) and segmentation is switched off.
    {"Refused", Frame(1000, 4, 10), true, true, 5, 6, false},
};

TEST(UdpBatchTest, EveryDatagramArrivesWhole) {
  for (const BatchCase& c : kCases) {
    SCOPED_TRACE(c.name);
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
    size_t total = 0;
    for (size_t i = 0; i < c.sizes.size(); ++i) {
      payloads.push_back(std::string(c.sizes[i], static_cast<char>('a' + i % 26)));
      total += c.sizes[i];
    }
    bool gso = true;
    size_t reported = 0;
    {
      UdpBatch batch(sender.native_handle(), c.segment ? &gso : nullptr,
                     [&](void*, size_t, bool sent) { reported += sent ? 1 : 0; });
      for (const std::string& p : payloads) {
        batch.Add(receiver.local_endpoint(), reinterpret_cast<const uint8_t*>(p.data()), p.size(),
                  &batch);
      }
      batch.Flush();
      EXPECT_EQ(batch.datagrams_sent(), payloads.size());
      EXPECT_EQ(batch.datagrams_dropped(), 0u);
      EXPECT_EQ(batch.bytes_sent(), total);
      EXPECT_EQ(batch.messages_sent(), c.messages);
      EXPECT_EQ(batch.system_calls(), c.calls);
    }
    EXPECT_EQ(reported, payloads.size());
    EXPECT_EQ(gso, c.gso_after);
    // Each payload arrives as one datagram, in order.
    char buffer[2048];
    for (const std::string& p : payloads) {
      pollfd pfd{receiver.native_handle(), POLLIN, 0};
      ASSERT_EQ(poll(&pfd, 1, 1000), 1);
      ASSERT_EQ(std::string(buffer, receiver.receive(asio::buffer(buffer))), p);
    }
  }
}

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
