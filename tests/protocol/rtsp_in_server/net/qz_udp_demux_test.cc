// Datagrams are routed by their sender's address and port together.
#include "protocol/rtsp_in_server/net/qz_udp_demux.h"

#include "protocol/rtsp_in_server/net/qz_socket_setup.h"

#include "gtest/gtest.h"

namespace qz_rtsp_internal_server {
namespace {

asio::ip::udp::endpoint At(const char* address, uint16_t port) {
  return asio::ip::udp::endpoint(asio::ip::make_address(address), port);
}

TEST(UdpDemuxTest, RoutesByAddressAndPort) {
  UdpDemux demux;
  demux.Add(At("192.0.2.1", 5000), "a");
  demux.Add(At("192.0.2.1", 5002), "b");  // same host (or NAT), other port
  demux.Add(At("2001:db8::1", 5000), "c");
  struct Case {
    asio::ip::udp::endpoint from;
    const char* owner;  // nullptr: not routed
  };
  const Case cases[] = {
      {At("192.0.2.1", 5000), "a"},
      {At("::ffff:192.0.2.1", 5000), "a"},  // seen through a dual-stack socket
      {At("192.0.2.1", 5002), "b"},
      {At("192.0.2.2", 5000), nullptr},  // another host on a known port
      {At("192.0.2.1", 5001), nullptr},
      {At("2001:db8::1", 5000), "c"},
  };
  for (const Case& c : cases) {
    const std::string* owner = demux.Find(c.from);
    if (c.owner == nullptr) {
      EXPECT_EQ(owner, nullptr) << c.from;
    } else {
      ASSERT_NE(owner, nullptr) << c.from;
      EXPECT_EQ(*owner, c.owner) << c.from;
    }
  }
  // A route is removed only by its owner; a later Add takes it over.
  demux.Remove(At("192.0.2.1", 5000), "b");
  EXPECT_NE(demux.Find(At("192.0.2.1", 5000)), nullptr);
  demux.Add(At("::ffff:192.0.2.1", 5000), "d");
  EXPECT_EQ(*demux.Find(At("192.0.2.1", 5000)), "d");
  demux.Remove(At("192.0.2.1", 5000), "d");
  EXPECT_EQ(demux.Find(At("192.0.2.1", 5000)), nullptr);
  EXPECT_EQ(demux.size(), 2u);
}

// The RTP/RTCP pair listens where the RTSP socket does: a server bound to one
// interface takes no datagrams on the others.
TEST(SocketSetupTest, UdpPairIsBoundWhereTheListenerIs) {
  asio::io_context io;
  for (const char* at : {"127.0.0.1", "::"}) {
    UdpPortPair pair;
    uint32_t draw = 0;
    ASSERT_TRUE(OpenUdpPortPair(
        io, asio::ip::make_address(at), [&draw] { return draw++; }, pair))
        << at;
    const asio::ip::address bound = pair.rtp->local_endpoint().address();
    EXPECT_TRUE(bound == asio::ip::make_address(at) || (at[0] == ':' && bound.is_unspecified()))
        << at << " bound " << bound;
    EXPECT_EQ(pair.rtcp->local_endpoint().address(), bound);
    EXPECT_EQ(pair.rtcp->local_endpoint().port(), pair.rtp_port + 1);
  }
}

}  // namespace
}  // namespace qz_rtsp_internal_server
