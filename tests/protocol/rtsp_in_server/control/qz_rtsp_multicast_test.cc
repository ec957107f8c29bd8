// Multicast through the server's seams: viewers set up and play as their
// clients would, records are posted into the stream, and what the server
// would send is read from the fake UDP sink. No sockets, threads or sleeps.
#include "protocol/rtsp_in_server/control/qz_rtsp_multicast.h"

#include <algorithm>
#include <set>
#include <string>
#include <vector>

#include "gtest/gtest.h"
#include "protocol/rtsp_in_server/control/qz_rtsp_core.h"
#include "protocol/rtsp_in_server/wire/qz_rtsp_transport.h"
#include "tests/fakes/fake_rtsp_core.h"
#include "tests/fakes/test_support.h"

namespace qz_rtsp_internal_server {
namespace {

using qz_test::Datagram;
using qz_test::FakeClient;
using qz_test::FakeRtspCore;
using qz_test::Reply;
using Endpoint = asio::ip::udp::endpoint;

QZRtspServerOptions MulticastOn(int groups = 64) {
  QZRtspServerOptions options;
  options.multicast = true;
  options.multicast_group_count = groups;
  return options;
}

const char kMulticast[] = "RTP/AVP;multicast";

// A client that set up both tracks as multicast; it plays unless told not to.
struct Member {
  std::shared_ptr<FakeClient> client;
  std::string session;
  RtspTransport track[2];
};

Member Join(FakeRtspCore& server, uint16_t port, bool play = true) {
  Member m{server.Connect(port), "", {}};
  for (int t = 0; t < 2; ++t) {
    const Reply r = server.SetupReply(*m.client, t, kMulticast, m.session);
    EXPECT_TRUE(ParseRtspTransportSpec(r.Header("Transport"), m.track[t]))
        << r.status << " " << r.Header("Transport");
    m.session = r.Header("Session").substr(0, 16);
  }
  if (play) {
    EXPECT_EQ(server.In(*m.client, "PLAY", m.session).status, 200);
  }
  return m;
}

// The group's four ports: video RTP and RTCP, audio RTP and RTCP.
std::set<Endpoint> GroupEndpoints(const Member& m) {
  std::set<Endpoint> out;
  for (const RtspTransport& t : m.track) {
    const asio::ip::address group = asio::ip::make_address(t.destination);
    out.insert(Endpoint(group, static_cast<uint16_t>(t.multicast_rtp_port)));
    out.insert(Endpoint(group, static_cast<uint16_t>(t.multicast_rtcp_port)));
  }
  return out;
}

size_t RtpSince(FakeRtspCore& server, size_t mark) {
  const std::vector<Datagram>& sent = server.udp().sent;
  return static_cast<size_t>(std::count_if(sent.begin() + static_cast<long>(mark), sent.end(),
                                           [](const Datagram& d) { return !d.rtcp; }));
}

// The first datagram sent since `mark` to `port`, RTP or RTCP; null when none.
const Datagram* FirstTo(FakeRtspCore& server, size_t mark, int port, bool rtcp) {
  const std::vector<Datagram>& sent = server.udp().sent;
  for (size_t i = mark; i < sent.size(); ++i) {
    if (sent[i].rtcp == rtcp && sent[i].to.port() == port) {
      return &sent[i];
    }
  }
  return nullptr;
}

// Which transport a SETUP gets, multicast on or off, is in the request table
// of qz_rtsp_core_test.cc.

// ---- hostile Transport values --------------------------------------------------------

// The group's address, ports and TTL are the server's: in-range values a
// client asks for are not used, out-of-range ones make the request
// malformed. Either way the group stays where it was for the honest viewer
// and nothing is sent anywhere else.
struct HostileCase {
  const char* name;
  const char* transport;
  int status;
};

const HostileCase kHostileCases[] = {
    {"port_zero", "RTP/AVP;multicast;port=0", 200},
    {"odd_port", "RTP/AVP;multicast;port=5001-5002", 200},
    {"port_65535", "RTP/AVP;multicast;port=65535", 461},
    {"last_port_pair", "RTP/AVP;multicast;port=65534-65535", 200},
    {"ttl_0", "RTP/AVP;multicast;ttl=0", 200},
    {"ttl_255", "RTP/AVP;multicast;ttl=255", 200},
    {"ttl_256", "RTP/AVP;multicast;ttl=256", 461},
    {"ttl_1000", "RTP/AVP;multicast;ttl=1000", 461},
    {"destination_unicast", "RTP/AVP;multicast;destination=192.0.2.7;port=7000-7001", 200},
    {"destination_loopback", "RTP/AVP;multicast;destination=127.0.0.1", 200},
    {"destination_other_group", "RTP/AVP;multicast;destination=239.1.2.3;port=5004-5005;ttl=64",
     200},
};

class HostileTest : public ::testing::TestWithParam<HostileCase> {};

TEST_P(HostileTest, GroupStaysTheServers) {
  const HostileCase& c = GetParam();
  FakeRtspCore server(MulticastOn());
  server.Feed(0, 5);
  const Member honest = Join(server, 50000);
  server.Feed(5, 5);
  auto hostile = server.Connect(50002);
  const Reply r = server.SetupReply(*hostile, 0, c.transport);
  ASSERT_EQ(r.status, c.status);
  if (r.status == 200) {
    RtspTransport got;
    EXPECT_TRUE(ParseRtspTransportSpec(r.Header("Transport"), got) && got == honest.track[0])
        << r.Header("Transport");
    server.In(*hostile, "PLAY", r.Header("Session").substr(0, 16));
  }
  const size_t built = server.stream().packets_built();
  const size_t mark = server.udp().sent.size();
  server.Feed(10, 20);
  EXPECT_EQ(RtpSince(server, mark), server.stream().packets_built() - built)
      << "one datagram per packet still";
  const std::set<Endpoint> group = GroupEndpoints(honest);
  for (const Datagram& d : server.udp().sent) {
    EXPECT_EQ(group.count(d.to), 1u) << d.to;
  }
  EXPECT_TRUE(server.table().Find(honest.session)->playing());
}

INSTANTIATE_TEST_SUITE_P(Table,
                         HostileTest,
                         ::testing::ValuesIn(kHostileCases),
                         qz_test::RowName());

// ---- one send per packet -------------------------------------------------------------

// The answer names a group of the range, the ports of that group's track
// (4 per group, video first), and the server's TTL; every packet goes there
// once, whatever the number of viewers.
TEST(MulticastTest, EveryPacketIsSentOnceToTheGroupTheAnswerNamed) {
  QZRtspServerOptions options = MulticastOn();
  options.multicast_ttl = 7;
  for (const int viewers : {1, 10}) {
    FakeRtspCore server(options);
    std::vector<Member> members;  // before the first packet: they wait for a key frame
    for (int i = 0; i < viewers; ++i) {
      members.push_back(Join(server, static_cast<uint16_t>(50000 + 2 * i)));
    }
    for (int t = 0; t < 2; ++t) {
      const RtspTransport& got = members[0].track[t];
      EXPECT_TRUE(got.multicast && got.has_ssrc);
      EXPECT_EQ(got.ttl, 7);
      EXPECT_EQ(got.ssrc, server.stream().TrackSsrc(t));
      EXPECT_EQ(got.destination, members[0].track[0].destination);
      const long long index =
          static_cast<long long>(asio::ip::make_address_v4(got.destination).to_uint()) -
          asio::ip::make_address_v4("239.255.42.0").to_uint();
      ASSERT_TRUE(index >= 0 && index < 64) << got.destination;
      EXPECT_EQ(got.multicast_rtp_port, 5004 + 4 * index + 2 * t);
      EXPECT_EQ(got.multicast_rtcp_port, got.multicast_rtp_port + 1);
    }
    server.Feed(0, 13);
    const unsigned long long built = server.stream().packets_built();
    const unsigned long long counted = server.totals().delivery.packets_sent.load();
    const size_t mark = server.udp().sent.size();
    server.Feed(13, 30);
    const size_t rtp = RtpSince(server, mark);
    EXPECT_EQ(rtp, server.stream().packets_built() - built) << viewers << " viewers";
    EXPECT_EQ(server.totals().delivery.packets_sent.load() - counted,
              server.udp().sent.size() - mark);
    EXPECT_GT(server.stream().Stats().write_delay.samples, 0u) << "the group's writes settle";
    for (size_t i = mark; i < server.udp().sent.size(); ++i) {
      const Datagram& d = server.udp().sent[i];
      if (!d.rtcp) {
        const int track = (static_cast<uint8_t>(d.bytes[1]) & 0x7F) == 96 ? 0 : 1;
        EXPECT_EQ(d.to.port(), members[0].track[track].multicast_rtp_port);
      }
    }
  }
}

// ---- the group's life ----------------------------------------------------------------

// One address in the range: it is free again only if the group was given
// back, however its last member left.
TEST(MulticastTest, GroupOutlivesOneViewerAndIsGivenBackAfterTheLast) {
  for (const char* last_leaves : {"teardown", "connection_closed", "expiry"}) {
    SCOPED_TRACE(last_leaves);
    FakeRtspCore server(MulticastOn(1));
    server.Feed(0, 3);
    Member a = Join(server, 50000), b = Join(server, 50002);
    ASSERT_EQ(server.In(*a.client, "TEARDOWN", a.session).status, 200);
    size_t mark = server.udp().sent.size();
    server.Feed(3, 10);
    EXPECT_GT(RtpSince(server, mark), 0u) << "b still plays";
    if (std::string(last_leaves) == "teardown") {
      server.In(*b.client, "TEARDOWN", b.session);
    } else if (std::string(last_leaves) == "connection_closed") {
      b.client->Close();
    } else {
      server.clock().AdvanceMs(61000);
      server.Tick();
    }
    EXPECT_TRUE(server.table().multicast().groups().empty());
    EXPECT_EQ(server.stream().Stats().sessions, 0);
    mark = server.udp().sent.size();
    server.Feed(13, 10);
    EXPECT_EQ(server.udp().sent.size(), mark) << "nothing sent without a viewer";
    const Member c = Join(server, 50004);
    EXPECT_EQ(c.track[0].destination, "239.255.42.0");
    server.Feed(23, 10);
    EXPECT_GT(RtpSince(server, mark), 0u);
  }
}

// Members live by their RTSP keep-alives: the unicast rule that ends a UDP
// session whose client's ports stay silent does not apply to them.
TEST(MulticastTest, KeepAlivesKeepMembers) {
  FakeRtspCore server(MulticastOn());
  const Member kept = Join(server, 50000), silent = Join(server, 50002);
  for (int i = 0; i < 3; ++i) {
    server.clock().AdvanceMs(25000);
    EXPECT_EQ(server.In(*kept.client, "GET_PARAMETER", kept.session).status, 200);
    server.Tick();
    EXPECT_EQ(server.table().Find(silent.session) != nullptr, i < 2) << "at " << 25 * (i + 1);
  }
  EXPECT_NE(server.table().Find(kept.session), nullptr);
  EXPECT_EQ(server.table().multicast().groups().size(), 1u);
}

// The group sends while any member plays, whether the others paused or
// left, and starts again at the latest key frame, as a unicast viewer would.
TEST(MulticastTest, GroupSendsWhileAnyMemberPlays) {
  FakeRtspCore server(MulticastOn());
  server.Feed(0, 3);
  const Member a = Join(server, 50000), b = Join(server, 50002);
  const uint16_t video = static_cast<uint16_t>(a.track[0].multicast_rtp_port);
  int frame = 3;
  // Each step: a request, then whether the group sends.
  const struct {
    const Member* member;
    const char* method;
    bool sends;
  } steps[] = {
      {&a, "PAUSE", true},
      {&b, "PAUSE", false},
      {&b, "PLAY", true},
      {&b, "TEARDOWN", false},
  };
  for (const auto& step : steps) {
    const size_t mark = server.udp().sent.size();
    ASSERT_EQ(server.In(*step.member->client, step.method, step.member->session).status, 200);
    server.Feed(frame, 5);
    frame += 5;
    EXPECT_EQ(RtpSince(server, mark) > 0, step.sends) << step.method;
    if (std::string(step.method) == "PLAY") {
      const Datagram* first = FirstTo(server, mark, video, false);
      ASSERT_NE(first, nullptr);
      EXPECT_EQ(static_cast<uint8_t>(first->bytes[12]) & 0x1F, 24) << "STAP-A: SPS and PPS";
    }
  }
}

// Sender reports go to the group's RTCP ports: at PLAY, before a track's
// first packet, and then every few seconds once for the group, not once per
// member. A late joiner gets the group's live edge (RTP-Info names the next
// packet sent), nothing replayed to the others, and a key frame is asked
// for: for one that joins within a second of another, when the second ends.
TEST(MulticastTest, LateJoinersStartAtTheLiveEdgeAndReportsGoToTheGroupOnce) {
  FakeRtspCore server(MulticastOn());
  server.Feed(0, 3);
  const Member first = Join(server, 50000);
  EXPECT_TRUE(server.key_frame_requests().empty()) << "the cached key frame starts the group";
  const std::vector<Datagram>& sent = server.udp().sent;
  for (int t = 0; t < 2; ++t) {
    const Datagram* report = FirstTo(server, 0, first.track[t].multicast_rtcp_port, true);
    const Datagram* media = FirstTo(server, 0, first.track[t].multicast_rtp_port, false);
    ASSERT_TRUE(report != nullptr && media != nullptr) << "track " << t;
    EXPECT_TRUE(qz_test::IsSenderReport(report->bytes));
    EXPECT_LT(report, media) << "track " << t;
  }
  server.Feed(3, 12);  // mid-GOP
  Member late = Join(server, 50002, false);
  const size_t built = server.stream().packets_built();
  const Reply play = server.In(*late.client, "PLAY", late.session);
  EXPECT_EQ(server.key_frame_requests().size(), 1u);
  std::vector<RtpInfoEntry> info;
  ASSERT_TRUE(ParseRtpInfo(play.Header("RTP-Info"), info)) << play.Header("RTP-Info");
  ASSERT_EQ(info.size(), 2u);
  size_t mark = sent.size();
  server.Feed(15, 2);
  EXPECT_EQ(RtpSince(server, mark), server.stream().packets_built() - built);
  const Datagram* video = FirstTo(server, mark, first.track[0].multicast_rtp_port, false);
  ASSERT_NE(video, nullptr);
  EXPECT_EQ(qz_test::SeqOf(video->bytes), info[0].seq);
  Join(server, 50004);
  Join(server, 50006);
  EXPECT_EQ(server.key_frame_requests().size(), 1u);
  server.AdvanceMs(1000);
  EXPECT_EQ(server.key_frame_requests().size(), 2u) << "one more, for both";
  server.AdvanceMs(2000);
  EXPECT_EQ(server.key_frame_requests().size(), 2u);
  server.clock().AdvanceMs(5000);
  mark = sent.size();
  server.Tick();
  std::multiset<uint16_t> reports;
  for (size_t i = mark; i < sent.size(); ++i) {
    EXPECT_TRUE(sent[i].rtcp && qz_test::IsSenderReport(sent[i].bytes));
    reports.insert(sent[i].to.port());
  }
  EXPECT_EQ(reports,
            (std::multiset<uint16_t>{static_cast<uint16_t>(first.track[0].multicast_rtcp_port),
                                     static_cast<uint16_t>(first.track[1].multicast_rtcp_port)}));
}

// ---- options --------------------------------------------------------------------------

TEST(MulticastTest, OptionsThatCannotBeServedAreRefusedWithAReason) {
  struct Row {
    const char* first_group;
    int count;
    int port;
    int ttl;
    const char* bind;
    bool ok;
  };
  const Row rows[] = {
      {"239.255.42.0", 64, 5004, 16, "", true},   {"239.255.42.0", 64, 5004, 16, "127.0.0.1", true},
      {"224.0.1.0", 1, 65532, 255, "", true},     {"239.255.42.0", 64, 5004, 16, "::1", false},
      {"10.0.0.1", 1, 5004, 16, "", false},       {"224.0.0.5", 1, 5004, 16, "", false},
      {"not an address", 1, 5004, 16, "", false}, {"239.255.255.250", 64, 5004, 16, "", false},
      {"239.255.42.0", 0, 5004, 16, "", false},   {"239.255.42.0", 1, 5005, 16, "", false},
      {"239.255.42.0", 1, 1000, 16, "", false},   {"239.255.42.0", 64, 65400, 16, "", false},
      {"239.255.42.0", 1, 5004, 0, "", false},    {"239.255.42.0", 1, 5004, 256, "", false},
  };
  for (const Row& row : rows) {
    QZRtspServerOptions o;
    o.multicast = true;
    o.multicast_first_group = row.first_group;
    o.multicast_group_count = row.count;
    o.multicast_port = row.port;
    o.multicast_ttl = row.ttl;
    o.bind_address = row.bind;
    RtspMulticastConfig config;
    const std::string why = RtspMulticastConfig::FromOptions(o, &config);
    EXPECT_EQ(why.empty(), row.ok) << row.first_group << " " << row.count << " " << row.port << " "
                                   << row.ttl << " " << row.bind << ": " << why;
    EXPECT_EQ(config.groups, row.ok ? row.count : 0);
  }
}

}  // namespace
}  // namespace qz_rtsp_internal_server
