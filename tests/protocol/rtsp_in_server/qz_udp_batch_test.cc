// The UDP batch sender over a real loopback socket: every datagram arrives
// intact and in order, in one system call per 64, and a socket that refuses
// them drops each one without stopping the rest.
#include "protocol/rtsp_in_server/qz_udp_batch.h"

#include <poll.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "gtest/gtest.h"

namespace qz_rtsp_internal_server {
namespace {

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
  char buffer[2048];
  for (const std::string& p : payloads) {
    pollfd pfd{receiver.native_handle(), POLLIN, 0};
    ASSERT_EQ(poll(&pfd, 1, 1000), 1);
    const size_t n = receiver.receive(asio::buffer(buffer));
    ASSERT_EQ(std::string(buffer, n), p);
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
