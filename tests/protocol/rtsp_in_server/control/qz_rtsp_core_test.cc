// The server's logic driven through its seams: requests handed to the
// handler as a connection would, records posted into the stream's pipe, the
// clock moved by hand; what each client would be sent is read from fakes.
// No sockets, threads or sleeps.
#include "protocol/rtsp_in_server/control/qz_rtsp_core.h"

#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "gmock/gmock.h"
#include "gtest/gtest.h"
#include "protocol/rtsp_in_server/rtp/qz_rtcp.h"
#include "protocol/rtsp_in_server/wire/qz_rtsp_headers.h"
#include "tests/fakes/fake_rtsp_core.h"
#include "tests/fakes/test_support.h"

namespace qz_rtsp_internal_server {
namespace {

using qz_test::FakeClient;
using qz_test::FakeRtspCore;
using qz_test::Frames;
using qz_test::IsSenderReport;
using qz_test::Reply;
using qz_test::SeqOf;
using qz_test::Written;
using ::testing::HasSubstr;

std::set<int> Channels(const std::vector<Written>& frames) {
  std::set<int> seen;
  for (const Written& f : frames) {
    seen.insert(f.channel);
  }
  return seen;
}

// The first of `frames` on `channel`, or null.
const Written* First(const std::vector<Written>& frames, int channel) {
  for (const Written& f : frames) {
    if (f.channel == channel) {
      return &f;
    }
  }
  return nullptr;
}

long long RtpTimeOf(const std::string& rtp) {
  long long t = 0;
  for (int i = 4; i < 8; ++i) {
    t = (t << 8) | static_cast<uint8_t>(rtp[i]);
  }
  return t;
}

// An H.264 STAP-A: a key frame's parameter sets, its first packet.
bool IsStapA(const std::string& rtp) {
  return (static_cast<uint8_t>(rtp[12]) & 0x1F) == 24;
}

// ---- requests and their answers -----------------------------------------------------

struct RequestCase {
  const char* name;
  std::string request;
  int status;
  std::string header = "";  // a header the answer must have ("Name: part of its value")
  // Requests sent first, one after the other, each answered 200 ("{S}": the
  // session id so far).
  std::string before = "";
  // kOverLimit: a connection the server's limits refused; kTls: one inside
  // TLS; kMulticast: a server that offers multicast; kOther: `before` is sent
  // on another connection.
  int client = 0;
};

constexpr int kOverLimit = 1, kTls = 2, kMulticast = 3, kOther = 4;

std::string Req(const std::string& line, const std::string& extra = "") {
  return line + " RTSP/1.0\r\nCSeq: 1\r\n" + extra + "\r\n";
}

// A SETUP of `url`; `transport` is the Transport header's value, then any
// further header lines.
std::string SetupOf(const std::string& url, const std::string& transport) {
  return Req("SETUP " + url, "Transport: " + transport + "\r\n");
}

const std::string kU = FakeRtspCore::kUrl;
const std::string kT0 = kU + "/trackID=0";
const std::string kS = "Session: {S}\r\n";
const std::string kT1 = kU + "/trackID=1";
const std::string kTcpSetup = SetupOf(kT0, "RTP/AVP/TCP;interleaved=0-1");
const std::string kPlaying = kTcpSetup + Req("PLAY " + kU, kS);
const std::string kUdp = "RTP/AVP;unicast;client_port=7000-7001";

const RequestCase kRequestCases[] = {
    {"options", Req("OPTIONS " + kU), 200,
     "Public: OPTIONS, DESCRIBE, SETUP, PLAY, PAUSE, TEARDOWN, GET_PARAMETER, SET_PARAMETER"},
    {"missing_cseq", "OPTIONS " + kU + " RTSP/1.0\r\n\r\n", 400},
    {"repeated_cseq", "OPTIONS " + kU + " RTSP/1.0\r\nCSeq: 1\r\nCSeq: 2\r\n\r\n", 400},
    {"rtsp_2", "OPTIONS " + kU + " RTSP/2.0\r\nCSeq: 1\r\n\r\n", 505},
    {"unknown_method", Req("BREW " + kU), 501},
    {"announce", Req("ANNOUNCE " + kU), 405},
    {"record", Req("RECORD " + kU), 405},
    {"describe_unknown_stream", Req("DESCRIBE rtsp://127.0.0.1/nope"), 404},
    {"setup_unknown_stream", SetupOf("rtsp://127.0.0.1/nope/trackID=0", "RTP/AVP/TCP"), 404},
    {"setup_unknown_track", SetupOf(kU + "/trackID=9", "RTP/AVP/TCP"), 404},
    {"setup_stream_url_of_two_tracks", SetupOf(kU, "RTP/AVP/TCP"), 404},
    {"setup_without_transport", Req("SETUP " + kT0), 461},
    {"unsupported_transport", SetupOf(kT0, "RAW/RAW/UDP;client_port=5000-5001"), 461},
    {"client_port_zero", SetupOf(kT0, "RTP/AVP;unicast;client_port=0-0"), 461},
    {"client_port_out_of_range", SetupOf(kT0, "RTP/AVP;unicast;client_port=65536-65537"), 461},
    {"destination_elsewhere",
     SetupOf(kT0, "RTP/AVP;unicast;destination=198.51.100.7;client_port=5000-5001"), 461},
    {"multicast", SetupOf(kT0, "RTP/AVP;multicast"), 461},
    {"setup_to_record", SetupOf(kT0, "RTP/AVP/TCP;unicast;interleaved=0-1;mode=record"), 461},
    {"require_unknown_option", Req("OPTIONS " + kU, "Require: com.example.record, play.basic\r\n"),
     551, "Unsupported: com.example.record, play.basic"},
    {"play_without_session", Req("PLAY " + kU), 454},
    {"play_unknown_session", Req("PLAY " + kU, "Session: 0123456789ABCDEF\r\n"), 454},
    {"keepalive_unknown_session", Req("GET_PARAMETER " + kU, "Session: FFFF\r\n"), 454},
    {"options_unknown_session", Req("OPTIONS " + kU, "Session: FFFF\r\n"), 200},
    {"setup_unknown_session", SetupOf(kT0, "RTP/AVP/TCP\r\nSession: FFFF"), 454},
    {"keepalive", Req("GET_PARAMETER " + kU, kS), 200, "Session: ;timeout=60", kTcpSetup},
    {"setup_twice_on_one_track", SetupOf(kT0, "RTP/AVP/TCP\r\nSession: {S}"), 455, "", kTcpSetup},
    {"setup_other_stream_on_session",
     SetupOf("rtsp://127.0.0.1/other/trackID=0", "RTP/AVP/TCP\r\nSession: {S}"), 404, "",
     kTcpSetup},
    {"pause_before_play", Req("PAUSE " + kU, kS), 200, "", kTcpSetup},
    // A session is known only on the connection that set it up.
    {"pause_from_another_connection", Req("PAUSE " + kU, kS), 454, "", kPlaying, kOther},
    {"teardown_from_another_connection", Req("TEARDOWN " + kU, kS), 454, "", kPlaying, kOther},
    {"play_from_another_connection", Req("PLAY " + kU, kS), 454, "", kPlaying, kOther},
    {"teardown_then_reuse", Req("PLAY " + kU, kS), 454, "", kTcpSetup + Req("TEARDOWN " + kU, kS)},
    {"teardown_of_last_track_ends_session", Req("GET_PARAMETER " + kU, kS), 454, "",
     kTcpSetup + Req("TEARDOWN " + kT0, kS)},
    {"udp_setup_names_both_port_pairs", SetupOf(kT1, kUdp), 200,
     "Transport: " + kUdp + ";server_port=20000-20001;ssrc="},
    {"over_limit", Req("OPTIONS " + kU), 503, "Retry-After: 5", "", kOverLimit},
    // Inside TLS media goes inside the connection only, never over UDP in clear.
    {"tls_udp_setup", SetupOf(kT0, "RTP/AVP;unicast;client_port=5000-5001"), 461, "", "", kTls},
    {"tls_udp_or_tcp_setup",
     SetupOf(kT0, "RTP/AVP;unicast;client_port=5000-5001,RTP/AVP/TCP;unicast;interleaved=0-1"), 200,
     "Transport: RTP/AVP/TCP;unicast;interleaved=0-1", "", kTls},
    // Multicast is taken only when the server offers it, and never mixed
    // with another transport in one session.
    {"multicast_off_falls_back", SetupOf(kT0, "RTP/AVP;multicast," + kUdp), 200,
     "Transport: " + kUdp},
    {"multicast_first", SetupOf(kT0, "RTP/AVP;multicast," + kUdp), 200,
     "Transport: RTP/AVP;multicast;destination=239.255.42.", "", kMulticast},
    {"multicast_unicast_first", SetupOf(kT0, kUdp + ",RTP/AVP;multicast"), 200,
     "Transport: " + kUdp, "", kMulticast},
    {"multicast_tcp", SetupOf(kT0, "RTP/AVP/TCP;multicast"), 461, "", "", kMulticast},
    {"multicast_to_record", SetupOf(kT0, "RTP/AVP;multicast;mode=record"), 461, "", "", kMulticast},
    {"unicast_session_then_multicast", SetupOf(kT1, "RTP/AVP;multicast\r\nSession: {S}"), 461, "",
     SetupOf(kT0, kUdp), kMulticast},
    {"multicast_session_then_tcp", SetupOf(kT1, "RTP/AVP/TCP;interleaved=2-3\r\nSession: {S}"), 461,
     "", SetupOf(kT0, "RTP/AVP;multicast"), kMulticast},
};

class RequestTest : public ::testing::TestWithParam<RequestCase> {};

TEST_P(RequestTest, Answered) {
  const RequestCase& c = GetParam();
  QZRtspServerOptions options;
  options.multicast = c.client == kMulticast;
  FakeRtspCore server(options);
  auto client = server.Connect(), other = server.Connect(50002);
  client->over_limit = c.client == kOverLimit;
  client->encrypted = c.client == kTls;
  std::string session;
  auto expand = [&session](std::string s) {
    for (size_t at; (at = s.find("{S}")) != std::string::npos;) {
      s.replace(at, 3, session);
    }
    return s;
  };
  for (size_t at = 0, end; (end = c.before.find("\r\n\r\n", at)) != std::string::npos;
       at = end + 4) {
    const std::string step = c.before.substr(at, end + 4 - at);
    const Reply r = server.SendRaw(c.client == kOther ? *other : *client, expand(step));
    ASSERT_EQ(r.status, 200) << step;
    if (!r.Header("Session").empty()) {
      session = r.Header("Session").substr(0, 16);
    }
  }
  const Reply r = server.SendRaw(*client, expand(c.request));
  EXPECT_EQ(r.status, c.status);
  EXPECT_EQ(client->close_after_write, c.status == 400 || c.client == kOverLimit)
      << "only a broken request, or a connection over the limits, ends the connection";
  const std::string& header = c.header;
  if (!header.empty()) {
    const size_t colon = header.find(": ");
    EXPECT_THAT(r.Header(header.substr(0, colon)), HasSubstr(header.substr(colon + 2)));
  }
}

INSTANTIATE_TEST_SUITE_P(Table,
                         RequestTest,
                         ::testing::ValuesIn(kRequestCases),
                         qz_test::RowName());

TEST(CoreTest, DescribeNamesTheStreamAndWaitsForItsParameterSets) {
  QZRtspServerOptions options;
  options.describe_wait_ms = 300;
  FakeRtspCore server(options);
  auto client = server.Connect();
  const Reply described = server.Send(*client, "DESCRIBE");
  ASSERT_EQ(described.status, 200);
  EXPECT_EQ(described.Header("Content-Base"), std::string(FakeRtspCore::kUrl) + "/");
  EXPECT_THAT(described.body, HasSubstr("sprop-parameter-sets=Z0LAHtoCgA==,aM48gA=="));
  EXPECT_THAT(described.body, HasSubstr("a=rtpmap:8 PCMA/8000"));

  // Without parameter sets: no answer until they come, 503 after the wait.
  server.piple()->SetSpsPps(nullptr, 0, nullptr, 0);
  ASSERT_FALSE(server.piple()->IsHasAVConfig());
  EXPECT_EQ(server.Send(*client, "DESCRIBE").status, -1);
  server.AdvanceMs(290);
  EXPECT_EQ(client->written.size(), 1u) << "still waiting";
  server.AdvanceMs(20);
  EXPECT_EQ(client->written.back().bytes.compare(0, 12, "RTSP/1.0 503"), 0);
  EXPECT_THAT(client->written.back().bytes, HasSubstr("Retry-After: 1"));
  // Sets that arrive during the wait are used at once.
  EXPECT_EQ(server.Send(*client, "DESCRIBE").status, -1);
  server.AdvanceMs(100);
  server.piple()->SetSpsPps(qz_test::kH264Sps.data(), 7, qz_test::kH264Pps.data(), 4);
  server.AdvanceMs(50);
  EXPECT_EQ(client->written.back().bytes.compare(0, 12, "RTSP/1.0 200"), 0);
}

TEST(CoreTest, AuthenticationChallengesEverythingButOptions) {
  QZRtspServerOptions options;
  options.auth_user = "user";
  options.auth_password = "secret";
  FakeRtspCore server(options);
  auto client = server.Connect();
  EXPECT_EQ(server.Send(*client, "OPTIONS").status, 200);
  const Reply challenge = server.Send(*client, "DESCRIBE");
  ASSERT_EQ(challenge.status, 401);
  RtspAuthHeader www;
  ASSERT_TRUE(ParseRtspAuth(challenge.Header("WWW-Authenticate"), www));
  ASSERT_NE(www.Param("nonce"), nullptr);
  const std::string response =
      RtspAuthenticator::DigestResponse(RtspAuthenticator::Algorithm::kMd5, "user", "qz-rtsp",
                                        "secret", "DESCRIBE", kU, *www.Param("nonce"), "", "", "");
  const std::string credentials =
      "Authorization: Digest username=\"user\", realm=\"qz-rtsp\", nonce=\"" + *www.Param("nonce") +
      "\", uri=\"" + kU + "\", response=\"";
  EXPECT_EQ(server.Send(*client, "DESCRIBE", "", credentials + response + "\"\r\n").status, 200);
  // One hex digit off (the nonce, and with it the right digest, differs
  // from run to run: the wrong one must differ from it in every run).
  std::string wrong = response;
  wrong[0] = wrong[0] == '0' ? '1' : '0';
  EXPECT_EQ(server.Send(*client, "DESCRIBE", "", credentials + wrong + "\"\r\n").status, 401);
}

// ---- playing ------------------------------------------------------------------------

// A viewer that joins mid-GOP starts at the latest key frame: RTP-Info
// names that packet, each track's sender report comes before its first
// packet (FFmpeg re-anchors its clock on the report), and only what was set
// up is sent.
TEST(CoreTest, PlayStartsAtTheKeyFrameWithReportsFirst) {
  FakeRtspCore server;
  server.Feed(0, 15);
  for (const bool both : {false, true}) {
    auto client = server.Connect();
    const std::string session = server.Setup(*client, 0, "0-1");
    if (both) {
      ASSERT_EQ(server.Setup(*client, 1, "2-3", session), session);
    }
    const Reply play = server.In(*client, "PLAY", session);
    ASSERT_EQ(play.status, 200);
    EXPECT_EQ(play.Header("Range"), "npt=0.000-");
    std::vector<RtpInfoEntry> info;
    ASSERT_TRUE(ParseRtpInfo(play.Header("RTP-Info"), info));
    ASSERT_EQ(info.size(), both ? 2u : 1u);
    EXPECT_EQ(info[0].url, kT0);
    server.Feed(15, 3);
    const std::vector<Written> frames = Frames(*client);
    EXPECT_EQ(Channels(frames), both ? (std::set<int>{0, 1, 2, 3}) : (std::set<int>{0, 1}));
    for (int track = 0; track < static_cast<int>(info.size()); ++track) {
      const Written* media = First(frames, 2 * track);
      const Written* report = First(frames, 2 * track + 1);
      ASSERT_TRUE(media && report) << "track " << track;
      EXPECT_LT(report, media) << "track " << track;
      EXPECT_TRUE(IsSenderReport(report->bytes));
      EXPECT_EQ(SeqOf(media->bytes), info[track].seq) << "track " << track;
      EXPECT_EQ(RtpTimeOf(media->bytes), info[track].rtptime) << "track " << track;
    }
    EXPECT_TRUE(IsStapA(First(frames, 0)->bytes));
  }
}

// Regression: a viewer that joined before the first video key frame got the
// video sender report only with the periodic ones, seconds later.
TEST(CoreTest, EarlyViewerGetsTheReportBeforeTheFirstPacket) {
  FakeRtspCore server;
  auto client = server.Connect();
  const Reply play = server.In(*client, "PLAY", server.Setup(*client, 0, "0-1"));
  EXPECT_EQ(play.Header("RTP-Info"), "");  // nothing to name yet
  EXPECT_EQ(server.key_frame_requests().size(), 1u) << "no key frame held: one is asked for";
  server.Feed(0, 2);
  const std::vector<Written> frames = Frames(*client);
  ASSERT_GE(frames.size(), 2u);
  EXPECT_EQ(frames[0].channel, 1);
  EXPECT_TRUE(IsSenderReport(frames[0].bytes));
}

// Each record is packetized once whatever the number of viewers, and records
// posted together (the sinker posts what it found queued on one pass) reach
// each TCP viewer in one write. A record's delays are counted once every
// viewer wrote it: from its posting (every record), and from its frame's
// push (records that carry the push time).
TEST(CoreTest, RecordsArePacketizedOnceWrittenTogetherAndTheirDelaysCounted) {
  FakeRtspCore server;
  server.Feed(0, 1);
  auto a = server.Connect(50000), b = server.Connect(50002);
  server.Play(*a, "0-1", "2-3");
  server.Play(*b, "0-1", "2-3");
  const QZRtspStreamStats before = server.stream().Stats();
  const size_t a_frames = Frames(*a).size(), b_frames = Frames(*b).size();
  const int a_writes = a->media_writes, b_writes = b->media_writes;
  for (int i = 1; i < 6; ++i) {
    server.PostVideo(i, false, i == 1 ? server.clock().SteadyUs() - 5000 : 0);
    server.PostAudio(i);
  }
  server.Drain();
  const QZRtspStreamStats after = server.stream().Stats();
  EXPECT_EQ(after.rtp_packets_built - before.rtp_packets_built, 10u);
  EXPECT_EQ(Frames(*a).size() - a_frames, 10u);
  EXPECT_EQ(Frames(*b).size() - b_frames, 10u);
  EXPECT_EQ(a->media_writes, a_writes + 1);
  EXPECT_EQ(b->media_writes, b_writes + 1);
  EXPECT_EQ(after.tcp_writes, static_cast<unsigned long long>(a->media_writes + b->media_writes));
  EXPECT_EQ(after.write_delay.samples - before.write_delay.samples, 10u);
  EXPECT_EQ(after.push_delay.samples - before.push_delay.samples, 1u);
  EXPECT_GE(after.push_delay.p50_us, 5000);
}

TEST(CoreTest, WithoutGopCacheViewersWaitForAKeyFrameAndAskForIt) {
  QZRtspServerOptions options;
  options.gop_cache = false;
  FakeRtspCore server(options);
  server.Feed(0, 5);
  auto a = server.Connect(50000), b = server.Connect(50002);
  for (auto* c : {a.get(), b.get()}) {
    EXPECT_EQ(server.In(*c, "PLAY", server.Setup(*c, 0, "0-1")).Header("RTP-Info"), "");
  }
  EXPECT_EQ(server.key_frame_requests(), std::vector<std::string>{"live"})
      << "two joins within a second: one request, made in a turn of its own";
  server.Feed(5, 4);
  for (const Written& f : Frames(*a)) {
    EXPECT_EQ(f.channel, 1) << "a sender report at most, no media before the key frame";
  }
  server.Feed(9, 2);  // frame 10 is a key frame
  const std::vector<Written> frames = Frames(*a);
  ASSERT_NE(First(frames, 0), nullptr);
  EXPECT_TRUE(IsStapA(First(frames, 0)->bytes));
  // A join a second later asks again.
  server.clock().AdvanceMs(1000);
  auto c = server.Connect(50004);
  server.Play(*c, "0-1");
  server.Drain();
  EXPECT_EQ(server.key_frame_requests().size(), 2u);
}

// ---- sessions -----------------------------------------------------------------------

// VLC switches a track off with a TEARDOWN of its URL and on again with a
// SETUP on the playing session and a PLAY; a second session on one
// connection asks for channels already in use.
TEST(CoreTest, TracksComeAndGoWithinAPlayingSession) {
  FakeRtspCore server;
  server.Feed(0, 1);
  auto c = server.Connect();
  const std::string session = server.Setup(*c, 0, "0-1");
  // Channels taken on this connection: the track's own pair instead.
  EXPECT_THAT(server.SetupReply(*c, 1, "0-1", session).Header("Transport"),
              HasSubstr("interleaved=2-3"));
  server.In(*c, "PLAY", session);
  server.Feed(1, 2);
  EXPECT_EQ(Channels(Frames(*c)), (std::set<int>{0, 1, 2, 3}));

  ASSERT_EQ(server.In(*c, "TEARDOWN", session, "/trackID=1").status, 200);
  size_t mark = c->written.size();
  server.Feed(3, 2);
  EXPECT_EQ(Channels(Frames(*c, mark)), (std::set<int>{0}));  // video plays on, no audio

  EXPECT_THAT(server.SetupReply(*c, 1, "6-7", session).Header("Transport"),
              HasSubstr("interleaved=6-7"));
  mark = c->written.size();
  server.Feed(5, 2);
  EXPECT_EQ(Channels(Frames(*c, mark)), (std::set<int>{0}));  // not before PLAY
  mark = c->written.size();
  const Reply play = server.In(*c, "PLAY", session);
  std::vector<RtpInfoEntry> info;
  ASSERT_TRUE(ParseRtpInfo(play.Header("RTP-Info"), info));
  ASSERT_EQ(info.size(), 1u);  // the added track only: it starts at its next packet
  EXPECT_EQ(info[0].url, kU + "/trackID=1");
  EXPECT_EQ(info[0].seq, server.stream().NextSeq(1));
  server.Feed(7, 2);
  const std::vector<Written> after = Frames(*c, mark);
  ASSERT_EQ(Channels(after), (std::set<int>{0, 6, 7}));
  EXPECT_EQ(SeqOf(First(after, 6)->bytes), info[0].seq);

  // A second session on the connection asks for video's channels: it gets a
  // free pair and its own copy of the video there, RTP behind a header of
  // its own.
  const Reply second = server.SetupReply(*c, 0, "0-1");
  EXPECT_THAT(second.Header("Transport"), HasSubstr("interleaved=2-3"));
  mark = c->written.size();
  server.In(*c, "PLAY", second.Header("Session").substr(0, 16));
  server.Feed(9, 2);
  const std::vector<Written> both = Frames(*c, mark);
  EXPECT_EQ(Channels(both), (std::set<int>{0, 2, 3, 6}));
  for (const Written& f : both) {
    if (f.channel == 2) {
      EXPECT_EQ(static_cast<uint8_t>(f.bytes[0]) >> 6, 2);
    }
  }
}

// A session nothing is heard of expires alone: the connection and its other
// session stay. Receiver reports and keep-alives renew a session.
TEST(CoreTest, SilentSessionExpiresAloneNotItsConnection) {
  QZRtspServerOptions options;
  options.session_timeout_s = 2;
  FakeRtspCore server(options);
  auto c = server.Connect();
  const std::string silent = server.Play(*c, "udp:7000");
  const std::string renewed = server.Play(*c, "udp:7010");
  const std::string kept = server.Play(*c, "0-1");
  for (int i = 0; i < 5; ++i) {
    server.Feed(i * 50, 50);  // half a second of media, TCP written
    server.FromUdp(7011, {0, 0, 0, 0});
    server.Tick();
  }
  EXPECT_EQ(server.table().count(), 2);
  EXPECT_EQ(server.In(*c, "GET_PARAMETER", silent).status, 454);
  EXPECT_EQ(server.In(*c, "GET_PARAMETER", renewed).status, 200);
  EXPECT_EQ(server.In(*c, "GET_PARAMETER", kept).status, 200);
  EXPECT_FALSE(c->closed());
}

// A UDP viewer gets its media on its RTP port and the sender report first,
// on its RTCP port, at the address it connected from. RTCP from UDP clients
// is told apart by address and port: two players on one host (or behind one
// NAT) each get their own figures; a BYE ends only the session of its sender.
TEST(CoreTest, UdpViewersGetMediaAndTheirReceiverReportsReachTheirOwnSession) {
  FakeRtspCore server;
  server.Feed(0, 3);
  auto a = server.Connect(50000, "192.0.2.9"), b = server.Connect(50002);
  const std::string sa = server.Play(*a, "udp:7000");
  server.Feed(3, 2);
  const auto& sent = server.udp().sent;
  ASSERT_GT(sent.size(), 3u);
  for (size_t i = 0; i < sent.size(); ++i) {
    EXPECT_EQ(sent[i].to,
              asio::ip::udp::endpoint(asio::ip::make_address("192.0.2.9"), i == 0 ? 7001 : 7000))
        << i;
    EXPECT_TRUE(i == 0 ? sent[i].rtcp && IsSenderReport(sent[i].bytes)
                       : !sent[i].rtcp && (sent[i].bytes[1] & 0x7F) == 96)
        << i;
  }
  EXPECT_EQ(server.totals().delivery.packets_sent.load(), sent.size());
  const std::string sb = server.Play(*b, "udp:7002");
  // Another host whose player uses the same ports as b.
  auto c = server.Connect(50006, "192.0.2.9");
  const std::string sc = server.Setup(*c, 0, "udp:7002");
  const uint32_t ssrc = server.stream().TrackSsrc(0);
  // A receiver report (RFC 3550 6.4.2) about our video: 64/256 lost, 900
  // in total, jitter 4500 (50 ms at 90 kHz), echoing the sender report b was
  // sent, 150 ms after it left, held 100 ms by the client (RTT 50 ms). The
  // report's NTP stamp is its record's time, not when it left.
  const auto b_report = std::find_if(sent.begin(), sent.end(), [](const qz_test::Datagram& d) {
    return d.rtcp && d.to.port() == 7003;
  });
  ASSERT_NE(b_report, sent.end());
  const auto byte = [&b_report](size_t i) { return uint32_t{uint8_t(b_report->bytes.at(i))}; };
  const uint32_t lsr = byte(10) << 24 | byte(11) << 16 | byte(12) << 8 | byte(13);
  const uint32_t arrival = RtcpCompactNtp(server.clock().WallUs() + 150000);
  ASSERT_NE(lsr, arrival - 150 * 65536 / 1000) << "the stamp is the send time: nothing is shown";
  const uint32_t dlsr = 100 * 65536 / 1000;
  const std::vector<uint8_t> rr = qz_test::ReceiverReport(ssrc, 64, 900, 4500, lsr, dlsr);
  // As a dual-stack socket gives the sender's address.
  const auto from = [&](int port, const std::vector<uint8_t>& bytes) {
    return server.FromUdp(port, bytes, arrival, "::ffff:127.0.0.1");
  };
  EXPECT_FALSE(from(7004, rr)) << "nobody sends from there";
  EXPECT_TRUE(from(7003, rr));
  server.Tick();
  const std::vector<QZRtspSessionStats> stats = server.core().SessionStats();
  ASSERT_EQ(stats.size(), 3u);
  for (const QZRtspSessionStats& s : stats) {
    EXPECT_EQ(s.receiver_reports, s.id == sb ? 1u : 0u);
    EXPECT_EQ(s.packets_sent > 0, s.id != sc) << "c set up, never played";
    if (s.id == sb) {
      EXPECT_DOUBLE_EQ(s.fraction_lost, 0.25);
      EXPECT_EQ(s.cumulative_lost, 900);
      EXPECT_NEAR(s.jitter_ms, 50, 0.01);
      EXPECT_NEAR(s.rtt_ms, 50, 0.1);
      EXPECT_EQ(s.client, "127.0.0.1");
      EXPECT_FALSE(s.tcp);
    }
  }
  // RR then BYE in one compound packet, from a's RTCP port.
  const std::vector<uint8_t> bye = qz_test::ReceiverReport(ssrc, 0, 0, 0, 0, 0, true);
  RtspSessionTable& table = server.table();
  EXPECT_TRUE(server.FromUdp(7001, bye, arrival, "192.0.2.9"));
  EXPECT_EQ(table.Find(sa), nullptr);
  EXPECT_NE(table.Find(sb), nullptr);
  EXPECT_TRUE(a->sessions().empty());
  EXPECT_FALSE(server.FromUdp(7001, bye, arrival, "192.0.2.9")) << "routes gone";
  // Over TCP the reports arrive on the RTCP channel.
  auto t = server.Connect(50004);
  const std::string st = server.Setup(*t, 0, "4-5");
  server.FromTcp(*t, 5, rr, arrival);
  server.FromTcp(*t, 9, rr, arrival);
  EXPECT_EQ(table.Find(st)->reception().reports, 1u);
}

// A TCP viewer that stops reading holds nothing up: the others keep their
// media, and it resumes at a key frame, what it missed counted.
TEST(CoreTest, ClientThatStopsReadingHarmsNobody) {
  FakeRtspCore server;
  server.Feed(0, 1);
  auto stalled = server.Connect(50000), viewer = server.Connect(50002);
  server.Play(*stalled, "0-1");
  server.Play(*viewer, "0-1");
  stalled->stalled = true;
  const size_t mark = stalled->written.size();
  server.Feed(1, 600);  // six seconds: past the ring's age limit
  EXPECT_GT(Frames(*viewer).size(), 600u);
  stalled->stalled = false;
  stalled->KickWrite();
  const std::vector<Written> resumed = Frames(*stalled, mark);
  ASSERT_FALSE(resumed.empty());
  EXPECT_TRUE(IsStapA(resumed[0].bytes)) << "resumes at a key frame";
  EXPECT_GT(server.totals().delivery.Drops().slow_reader, 0u);
  EXPECT_EQ(server.table().count(), 2);
}

// ---- what a hostile neighbour on the same network can no longer do --------------

// A full table makes room by closing the oldest connection that plays
// nothing; one address cannot hold more than its share, so 64 hostile
// connections from a few hosts cannot lock an honest viewer out.
TEST(CoreTest, AdmissionEvictsTheOldestIdleConnectionAndCapsEachAddress) {
  QZRtspServerOptions options;
  options.max_clients = 4;
  options.max_clients_per_address = 2;
  FakeRtspCore server(options);
  server.Feed(0, 1);
  using A = RtspServerCore::Admission;
  const struct {
    const char* name;
    // Addresses, "+" in front: it plays; "^": a tunnel's POST half, paired
    // with the GET half before it (it plays when its GET plays).
    const char* open;
    const char* from;
    A want;
    int evicted;  // index into `open`, -1: none
  } cases[] = {
      {"room", "10.0.0.1 10.0.0.2 +10.0.0.3", "10.0.0.4", A::kAdmit, -1},
      {"full_oldest_idle_goes", "10.0.0.1 10.0.0.2 10.0.0.3 10.0.0.4", "10.0.0.5", A::kEvict, 0},
      {"players_stay", "+10.0.0.1 10.0.0.2 +10.0.0.3 10.0.0.4", "10.0.0.5", A::kEvict, 1},
      {"full_of_players", "+10.0.0.1 +10.0.0.2 +10.0.0.3 +10.0.0.4", "10.0.0.5", A::kRefuse, -1},
      {"address_share", "10.0.0.1 10.0.0.1", "10.0.0.1", A::kRefuse, -1},
      {"address_share_v4_mapped", "10.0.0.1 10.0.0.1", "::ffff:10.0.0.1", A::kRefuse, -1},
      {"other_address", "10.0.0.1 10.0.0.1", "10.0.0.2", A::kAdmit, -1},
      {"tunnel_post_of_a_player", "+10.0.0.1 ^10.0.0.1 +10.0.0.2 +10.0.0.3", "10.0.0.5", A::kRefuse,
       -1},
  };
  for (const auto& c : cases) {
    std::vector<std::shared_ptr<FakeClient>> clients;
    std::vector<RtspClient*> open;
    std::istringstream addresses(c.open);
    for (std::string address; addresses >> address;) {
      const bool plays = address[0] == '+', post = address[0] == '^';
      clients.push_back(server.Connect(50000, address.c_str() + (plays || post ? 1 : 0)));
      clients.back()->accepted_ms = static_cast<long long>(clients.size()) * 1000;
      clients.back()->tunnel_output = post ? open.back() : nullptr;
      if (plays) {
        server.Play(*clients.back(), "0-1");
      }
      open.push_back(clients.back().get());
    }
    RtspClient* evict = nullptr;
    EXPECT_EQ(server.core().Admit(open, asio::ip::make_address(c.from), &evict), c.want) << c.name;
    EXPECT_EQ(evict, c.evicted < 0 ? nullptr : open[static_cast<size_t>(c.evicted)]) << c.name;
  }
}

// The idle limit runs from accept: keep-alives, refused requests and blank
// lines do not stop it, a successful SETUP does, and it starts again when
// the last session ends. A tunnel's POST half keeps no idle clock of its own
// (its GET's counts). A connection whose writes stay blocked is closed even
// while it keeps sending RTCP.
TEST(CoreTest, ConnectionsAreClosedByTheirClocksNotKeptOpenByChatter) {
  QZRtspServerOptions options;
  options.idle_timeout_s = 30;
  options.session_timeout_s = 60;
  FakeRtspCore server(options);
  server.Feed(0, 1);
  auto chatty = server.Connect(50000), viewer = server.Connect(50002),
       refused = server.Connect(50004), stuck = server.Connect(50006), post = server.Connect(50008);
  refused->over_limit = true;
  post->tunnel_output = chatty.get();
  const auto overdue = [&server](FakeClient& c) {
    const char* why = server.core().Overdue(c, server.core().NowMs());
    return std::string(why == nullptr ? "" : why);
  };
  std::string session;
  for (int s = 1; s <= 31; ++s) {
    server.AdvanceMs(1000);
    server.Send(*chatty, "OPTIONS");
    server.In(*chatty, "PLAY", "0123456789ABCDEF");  // 454
    if (s == 5) {
      session = server.Play(*viewer, "0-1");
      server.Play(*stuck, "0-1");
      stuck->stalled = true;
      stuck->write_blocked_since_ms = server.core().NowMs();
    }
    if (s == 3) {
      EXPECT_EQ(overdue(*refused), "refused");
    }
    EXPECT_EQ(overdue(*chatty), s <= 30 ? "" : "no session") << s;
    EXPECT_EQ(overdue(*viewer), "") << s;
    EXPECT_EQ(overdue(*post), "") << s;
  }
  server.In(*viewer, "TEARDOWN", session);
  EXPECT_EQ(overdue(*viewer), "");
  const std::vector<uint8_t> rr = qz_test::ReceiverReport(server.stream().TrackSsrc(0), 0, 0, 0);
  for (int s = 32; s <= 66; ++s) {
    server.AdvanceMs(1000);
    server.FromTcp(*stuck, 1, rr);
  }
  EXPECT_EQ(overdue(*viewer), "no session");
  EXPECT_EQ(overdue(*stuck), "not reading");
  stuck->request_started_ms = 0;
  viewer->request_started_ms = server.core().NowMs() - options.request_timeout_ms - 1;
  viewer->idle_since_ms = server.core().NowMs();
  EXPECT_EQ(overdue(*viewer), "request too slow");
}

// Media goes over UDP only to ports that answer: a session whose client's
// ports stay silent ends after 20 s, and PLAY does not move that deadline
// until the client was heard from once. Real clients' receiver reports keep
// theirs, across a long PAUSE too.
TEST(CoreTest, UdpMediaStopsWhenTheClientsPortsStaySilent) {
  FakeRtspCore server;
  server.Feed(0, 1);
  auto silent = server.Connect(50000), looping = server.Connect(50002),
       reporting = server.Connect(50004), pausing = server.Connect(50006);
  const std::string s_silent = server.Play(*silent, "udp:7000");
  const std::string s_looping = server.Play(*looping, "udp:7002");
  const std::string s_reporting = server.Play(*reporting, "udp:7004");
  const std::string s_pausing = server.Play(*pausing, "udp:7006");
  const std::vector<uint8_t> rr = qz_test::ReceiverReport(server.stream().TrackSsrc(0), 0, 0, 0);
  server.FromUdp(7007, rr);
  server.In(*pausing, "PAUSE", s_pausing);
  for (int s = 1; s <= 45; ++s) {
    server.Feed(s * 100, 100);
    if (s % 5 == 0) {
      server.In(*looping, "PAUSE", s_looping);
      server.In(*looping, "PLAY", s_looping);
      server.FromUdp(7005, rr);
      if (s >= 35) {
        server.FromUdp(7007, rr);
      }
    }
    if (s == 34) {
      server.In(*pausing, "PLAY", s_pausing);
    }
    server.Tick();
    const RtspSessionTable& table = server.table();
    EXPECT_EQ(table.Find(s_silent) != nullptr, s <= 20) << s;
    EXPECT_EQ(table.Find(s_looping) != nullptr, s <= 20) << s;
    EXPECT_NE(table.Find(s_reporting), nullptr) << s;
    EXPECT_NE(table.Find(s_pausing), nullptr) << s;
  }
}

// PAUSE lets the picture being sent finish, before its answer: a client
// left with part of one (FFmpeg drops what comes between the answer and the
// next PLAY) decodes it broken.
TEST(CoreTest, PauseFinishesThePictureBeingSentBeforeItsAnswer) {
  FakeRtspCore server;
  server.Feed(0, 1);  // a key frame: parameter sets, then the picture in three packets
  auto c = server.Connect();
  c->stalled = true;
  const std::string session = server.Play(*c, "0-1");
  RtspSession& s = *server.table().Find(session);
  s.read_index = server.stream().last_key_index() + 1;  // its first packet went out
  c->stalled = false;
  const size_t mark = c->written.size();
  server.In(*c, "PAUSE", session);
  server.Feed(1, 5);
  std::string order;  // v: video, a: the answer
  const Written* last_video = nullptr;
  for (size_t i = mark; i < c->written.size(); ++i) {
    const Written& w = c->written[i];
    order += w.channel == 0 ? "v" : w.channel == -1 ? "a" : "";
    last_video = w.channel == 0 ? &w : last_video;
  }
  ASSERT_EQ(order, "vvva") << "the picture's packets, the answer, nothing after";
  EXPECT_EQ(static_cast<uint8_t>(last_video->bytes[1]) & 0x80, 0x80) << "ends the picture";
}

// A client that joins, or loops PAUSE/PLAY to be sent the cached pictures
// again and again, is paced: it catches up within a couple of seconds, and
// over ten seconds gets less than three times what the stream carries.
TEST(CoreTest, CatchUpIsPacedAndPausePlayLoopsGetLessThanThreeTimesTheRate) {
  FakeRtspCore server;
  server.Feed(0, 1);
  auto steady = server.Connect(50004);  // live from the start: what the stream carries
  const RtspSession& live = *server.table().Find(server.Play(*steady, "udp:7010", "udp:7012"));
  server.Feed(1, 299, /*gop=*/200);  // 3 s: a measured rate and 1 s of cached pictures
  auto joiner = server.Connect(50000), looper = server.Connect(50002);
  const RtspSession& joining = *server.table().Find(server.Play(*joiner, "0-1"));
  const std::string s_looper = server.Play(*looper, "udp:7000");
  const RtspSession& looping = *server.table().Find(s_looper);
  const uint64_t behind = server.stream().end_index() - joining.read_index;
  EXPECT_GT(behind, 20u) << "a second of cached pictures is more than one burst";
  const unsigned long long stream_before = live.bytes_sent;
  for (int i = 0; i < 100; ++i) {  // ten seconds
    server.Feed(300 + i * 10, 10, /*gop=*/200);
    server.In(*looper, "PAUSE", s_looper);
    server.In(*looper, "PLAY", s_looper);
    if (i == 20) {
      EXPECT_EQ(joining.read_index, server.stream().end_index()) << "caught up within 2 s";
    }
  }
  const double stream_bytes = static_cast<double>(live.bytes_sent - stream_before);
  EXPECT_LT(static_cast<double>(looping.bytes_sent), 3 * stream_bytes);
  EXPECT_GT(static_cast<double>(looping.bytes_sent), 1.5 * stream_bytes) << "it was sent the GOP";
}

}  // namespace
}  // namespace qz_rtsp_internal_server
