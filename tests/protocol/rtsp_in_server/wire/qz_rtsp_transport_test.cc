#include "protocol/rtsp_in_server/wire/qz_rtsp_transport.h"

#include <string>
#include <vector>

#include "tests/protocol/rtsp_in_server/wire/qz_header_rows.h"

namespace qz_rtsp_internal_server {
namespace {

constexpr auto kUdp = RtspTransport::Kind::kUdp;
constexpr auto kTcp = RtspTransport::Kind::kTcp;

TEST(RtspTransportTest, ParseAndWrite) {
  // kind, multicast, client_port, server_port, interleaved, has_ssrc, ssrc, mode, destination, ttl
  CheckHeader<RtspTransport>(
      {
          {"RTP/AVP;unicast;client_port=5000-5001;server_port=6970-6971;ssrc=0A1B2C3D",
           {kUdp, false, 5000, 5001, 6970, 6971, -1, -1, true, 0x0A1B2C3D, "", ""}},
          // FFmpeg, GStreamer, live555 and ExoPlayer over TCP.
          {"RTP/AVP/TCP;unicast;interleaved=0-1",
           {kTcp, false, -1, -1, -1, -1, 0, 1, false, 0, "", ""}},
          // FFmpeg publishing; a quoted mode list stays quoted.
          {"RTP/AVP;unicast;client_port=4588-4589;mode=record",
           {kUdp, false, 4588, 4589, -1, -1, -1, -1, false, 0, "record", ""}},
          {"RTP/AVP;unicast;client_port=1-2;mode=\"PLAY,RECORD\"",
           {kUdp, false, 1, 2, -1, -1, -1, -1, false, 0, "PLAY,RECORD", ""}},
          {"RTP/AVP;multicast;destination=224.2.0.1;ttl=127;server_port=3456-3457",
           {kUdp, true, -1, -1, 3456, 3457, -1, -1, false, 0, "", "224.2.0.1", 127}},
          // The server's multicast answer: the group, its port pair, the TTL.
          {"RTP/AVP;multicast;destination=239.255.42.7;port=5032-5033;ttl=16;ssrc=0000002A",
           {kUdp, true, -1, -1, -1, -1, -1, -1, true, 42, "", "239.255.42.7", 16, 5032, 5033}},
      },
      {
          // GStreamer's quoted mode, single ports, blanks, case, unknowns.
          {"RTP/AVP;unicast;client_port=40202-40203;mode=\"PLAY\"",
           "RTP/AVP;unicast;client_port=40202-40203;mode=PLAY"},
          {"RTP/AVP/UDP;client_port=5000", "RTP/AVP;unicast;client_port=5000-5001"},
          {"RTP/AVP;multicast;port=5004", "RTP/AVP;multicast;port=5004-5005"},
          {"rtp/avp/tcp;Unicast;INTERLEAVED=4;mode=receive",
           "RTP/AVP/TCP;unicast;interleaved=4-5;mode=receive"},
          {" RTP/AVP ; unicast ; client_port = 0 - 1 ; x-foo=\"a;b\" ; ssrc=1f ",
           "RTP/AVP;unicast;client_port=0-1;ssrc=0000001F"},
      },
      // clang-format off
      {"", "RTP/SAVP;unicast", "RAW/RAW/UDP;client_port=5000-5001",
       "RTP/AVP;client_port=70000-70001", "RTP/AVP;client_port=65535", "RTP/AVP;client_port=0-0",
       "RTP/AVP;client_port=a-b", "RTP/AVP;client_port=5000-", "RTP/AVP;server_port=",
       "RTP/AVP/TCP;interleaved=255-256", "RTP/AVP/TCP;interleaved=255", "RTP/AVP;ssrc=123456789",
       "RTP/AVP;ssrc=xyz", "RTP/AVP;ttl=256", "RTP/AVP;ttl=1000", "RTP/AVP;multicast;port=65535",
       "RTP/AVP;multicast;port=5000-70000", "RTP/AVP;mode=\"PLAY", "RTP/AVP;mode=PL\"AY\"",
       "RTP/AVP;destination=\"a b\""},
      // clang-format on
      ParseRtspTransportSpec, WriteRtspTransport);
}

TEST(RtspTransportTest, ListAndTheOneServed) {
  // Every transport of the header, in the client's order.
  const std::pair<std::string, std::string> lists[] = {
      {"RTP/AVP;multicast, RTP/AVP/TCP;interleaved=0-1,",
       "RTP/AVP;multicast|RTP/AVP/TCP;unicast;interleaved=0-1"},
      {"RTP/AVP/TCP;mode=\"PLAY,RECORD\",RTP/AVP/TCP;mode=\"PLAY\"",
       "RTP/AVP/TCP;unicast;mode=\"PLAY,RECORD\"|RTP/AVP/TCP;unicast;mode=PLAY"},
      {"RTP/SAVP;unicast,RTP/AVP/TCP", "refused"},
      {" , ", "refused"},
  };
  for (const auto& c : lists) {
    std::vector<RtspTransport> list;
    std::string all;
    const bool ok = ParseRtspTransports(c.first, list);
    for (const RtspTransport& t : list) {
      all += (all.empty() ? "" : "|") + WriteRtspTransport(t);
    }
    EXPECT_EQ(ok ? all : "refused", c.second) << c.first;
  }
  // The first transport this server plays, without and with multicast: ""
  // when none qualifies (to publish, mode=record or receive in any case, is
  // not served; multicast only over UDP).
  struct Served {
    std::string header;
    std::string unicast;
    std::string multicast;
  };
  const Served served[] = {
      {"RTP/SAVP;unicast,RTP/AVP/TCP;interleaved=0-1", "RTP/AVP/TCP;unicast;interleaved=0-1",
       "RTP/AVP/TCP;unicast;interleaved=0-1"},
      {"RTP/AVP;multicast,RTP/AVP/UDP;unicast;client_port=6970-6971;mode=play",
       "RTP/AVP;unicast;client_port=6970-6971;mode=play", "RTP/AVP;multicast"},
      {"RTP/AVP;unicast;client_port=5000-5001;mode=record,RTP/AVP/TCP", "RTP/AVP/TCP;unicast",
       "RTP/AVP/TCP;unicast"},
      {"RTP/AVP;unicast;destination=10.1.1.1;client_port=5000-5001",
       "RTP/AVP;unicast;destination=10.1.1.1;client_port=5000-5001",
       "RTP/AVP;unicast;destination=10.1.1.1;client_port=5000-5001"},
      {"RTP/AVP;unicast", "", ""},
      {"RTP/AVP;unicast;client_port=0", "", ""},
      {"RTP/AVP/TCP;mode=\"RECORD\"", "", ""},
      {"RTP/AVP/TCP;mode=Receive", "", ""},
      {"RTP/AVP;multicast;client_port=5000-5001", "", "RTP/AVP;multicast;client_port=5000-5001"},
      {"RTP/AVP;multicast;destination=10.0.0.9;port=1-2;ttl=0", "",
       "RTP/AVP;multicast;destination=10.0.0.9;port=1-2;ttl=0"},
      {"RTP/AVP/TCP;multicast,RTP/AVP;multicast;mode=record", "", ""},
      {"RTP/AVP;multicast;ttl=300,RTP/AVP/TCP", "RTP/AVP/TCP;unicast", "RTP/AVP/TCP;unicast"},
      {"", "", ""},
  };
  for (const Served& c : served) {
    RtspTransport t;
    EXPECT_EQ(ParseRtspTransport(c.header, t) ? WriteRtspTransport(t) : "", c.unicast) << c.header;
    t = RtspTransport();
    EXPECT_EQ(ParseRtspTransportOrMulticast(c.header, t) ? WriteRtspTransport(t) : "", c.multicast)
        << c.header;
  }
}

}  // namespace
}  // namespace qz_rtsp_internal_server
