// The UDP batch sender over a real loopback socket: every datagram arrives
// intact and in order, in one system call per 64 messages, segmented or not,
// on the Linux path, or in one per datagram on the portable path; a socket
// that refuses them drops each one without stopping the rest.
#include "protocol/rtsp_in_server/net/qz_udp_batch.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "gtest/gtest.h"
#include "protocol/rtsp_in_server/net/platform/qz_net_platform.h"

namespace qz_rtsp_internal_server {
namespace {

// Runs of same-size datagrams to one client leave as segmented messages on
// the Linux path; the receiver still gets each datagram on its own, in order.
struct BatchCase {
  const char* name;
  std::vector<size_t> sizes;  // of successive datagrams to one receiver
  bool segment;               // the caller's switch is given (else nullptr)
  bool no_checksum;           // the socket refuses segmentation
  size_t messages;            // Linux path: messages the kernel took
  size_t calls;               // Linux path: sendmmsg/sendmsg calls
  bool gso_after;             // Linux path: the switch after the batch
  size_t portable_calls;      // portable path: sendmsg calls, one per datagram
  int refused = -1;           // the datagram sent to port 0, which the kernel refuses
};

std::vector<size_t> Frame(size_t full, size_t count, size_t last) {
  std::vector<size_t> sizes(count, full);
  sizes.push_back(last);
  return sizes;
}

const BatchCase kCases[] = {
    // Without the switch nothing is merged: 64 messages a call.
    {"NoSwitch", Frame(500, 99, 500), false, false, 100, 2, true, 100},
    // A frame of 20 full packets and a short one: one message.
    {"OneFrame", Frame(1412, 20, 300), true, false, 1, 1, true, 21},
    // 100 packets pass the 64-segment limit: two messages, one call.
    {"PastSegmentLimit", Frame(500, 99, 500), true, false, 2, 1, true, 100},
    // A short packet ends a run; the next frame starts another.
    {"TwoFrames", {1412, 1412, 200, 1412, 1412, 700, 1412}, true, false, 3, 1, true, 7},
    // Growing sizes cannot be segmented: one message each.
    {"GrowingSizes", {100, 200, 300, 400}, true, false, 4, 1, true, 4},
    // The socket refuses segmentation: that message goes one datagram at a
    // time (1 failed sendmmsg + 5 sendmsg) and segmentation is switched off.
    {"Refused", Frame(1000, 4, 10), true, true, 5, 6, false, 5},
    // A message refused in the middle of a batch is dropped and the rest
    // still goes: one sendmmsg stops before it, the next is refused, a third
    // sends the rest.
    {"RefusedInTheMiddle", {300, 300, 300, 300, 300}, true, false, 2, 3, true, 5, 2},
};

TEST(UdpBatchTest, EveryDatagramArrivesWhole) {
  const bool linux_path = kUdpSendPath == UdpSendPath::kLinux;
  for (const BatchCase& c : kCases) {
    SCOPED_TRACE(c.name);
    asio::io_context io;
    asio::ip::udp::socket receiver(io,
                                   asio::ip::udp::endpoint(asio::ip::make_address("127.0.0.1"), 0));
    receiver.set_option(asio::socket_base::receive_buffer_size(4 << 20));
    const asio::ip::udp::endpoint nowhere(receiver.local_endpoint().address(), 0);
    asio::ip::udp::socket sender(io, asio::ip::udp::endpoint(asio::ip::udp::v4(), 0));
    if (c.no_checksum) {
      ASSERT_EQ(RefuseUdpSegmentationForTesting(sender.native_handle()), linux_path);
    }
    std::vector<std::string> payloads;
    std::vector<std::string> arriving;
    size_t total = 0;
    for (size_t i = 0; i < c.sizes.size(); ++i) {
      payloads.push_back(std::string(c.sizes[i], static_cast<char>('a' + i % 26)));
      if (static_cast<int>(i) != c.refused) {
        arriving.push_back(payloads.back());
        total += c.sizes[i];
      }
    }
    bool gso = true;
    size_t reported = 0;
    {
      UdpBatch batch(sender.native_handle(), c.segment ? &gso : nullptr,
                     [&](void*, size_t, bool sent) { reported += sent ? 1 : 0; });
      for (size_t i = 0; i < payloads.size(); ++i) {
        batch.Add(static_cast<int>(i) == c.refused ? nowhere : receiver.local_endpoint(),
                  reinterpret_cast<const uint8_t*>(payloads[i].data()), payloads[i].size(), &batch);
      }
      batch.Flush();
      EXPECT_EQ(batch.datagrams_sent(), arriving.size());
      EXPECT_EQ(batch.datagrams_dropped(), payloads.size() - arriving.size());
      EXPECT_EQ(batch.bytes_sent(), total);
      EXPECT_EQ(batch.messages_sent(), linux_path ? c.messages : arriving.size());
      EXPECT_EQ(batch.system_calls(), linux_path ? c.calls : c.portable_calls);
    }
    EXPECT_EQ(reported, arriving.size());
    // The portable path never segments: a given switch is cleared at once.
    EXPECT_EQ(gso, linux_path ? c.gso_after : !c.segment);
    // Each payload arrives as one datagram, in order.
    char buffer[2048];
    for (const std::string& p : arriving) {
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
  EXPECT_EQ(batch.system_calls(), 5u);  // each refused message on its own
}

}  // namespace
}  // namespace qz_rtsp_internal_server
