#include "protocol/rtsp_push/qz_push_protocol.h"

#include <string>
#include <vector>

#include "gtest/gtest.h"
#include "protocol/rtsp_in_server/wire/qz_rtsp_auth.h"

namespace qz_rtsp_internal_server {
namespace {

using Action = RtspPushProtocol::Action;
using Step = RtspPushProtocol::Step;

RtspPushProtocol::Config Config(bool udp, const std::string& url = "rtsp://relay:8554/phone") {
  RtspPushProtocol::Config config;
  EXPECT_TRUE(ParseRtspUrl(url, config.url)) << url;
  config.udp = udp;
  RtpTrackInfo video;
  video.is_video = true;
  video.codec = QZ_MEDIA_CODEC_ID_H264;
  video.control = "trackID=0";
  RtpTrackInfo audio;
  audio.codec = QZ_MEDIA_CODEC_ID_AAC;
  audio.payload_type = 97;
  audio.clock_rate = 48000;
  audio.control = "trackID=1";
  config.tracks = {video, audio};
  config.sdp = "v=0\r\nm=video 0 RTP/AVP 96\r\n";
  config.client_ports = {{40000, 40001}, {40002, 40003}};
  return config;
}

RtspRequest Parse(const std::string& text, bool responses) {
  RtspRequestParser parser(RtspLimits(), responses);
  parser.Feed(text.data(), text.size());
  EXPECT_EQ(parser.Next(), responses ? RtspParseResult::kResponse : RtspParseResult::kRequest)
      << text;
  return parser.request();
}

// The relay answers `request` (with its CSeq) by `status` ("200 OK") and
// header lines ("Session: 1\r\n"); what the protocol does then.
Action Reply(RtspPushProtocol& protocol,
             const std::string& request,
             const std::string& status,
             const std::string& headers = "") {
  const RtspRequest sent = Parse(request, false);
  const std::string cseq = sent.Header("CSeq") ? *sent.Header("CSeq") : "?";
  return protocol.OnResponse(
      Parse("RTSP/1.0 " + status + "\r\nCSeq: " + cseq + "\r\n" + headers + "\r\n", true));
}

// One exchange of a scripted dialogue: the relay answers the request just
// sent with `status` and `headers`; the protocol then does `step`: kSend a
// request that starts with next[0] and holds every other text of `next`,
// kRecording, or kFail with `error` in its reason.
struct Exchange {
  Exchange(std::string s,
           std::string h,
           std::vector<std::string> n,
           Step st = Step::kSend,
           std::string e = "")
      : status(s), headers(h), next(n), step(st), error(e) {}
  std::string status;
  std::string headers;
  std::vector<std::string> next;
  Step step;
  std::string error;
};

struct Dialogue {
  const char* name;
  bool udp;
  const char* url;
  std::vector<Exchange> exchanges;
};

std::vector<Dialogue> Dialogues() {
  const std::string digest = "WWW-Authenticate: Digest realm=\"r\", nonce=\"n1\", qop=\"auth\"\r\n";
  const std::string basic = "WWW-Authenticate: Basic realm=\"r\"\r\n";
  const std::string tcp0 = "Transport: RTP/AVP/TCP;unicast;interleaved=0-1;mode=record\r\n";
  const std::string session = "Session: 12345678;timeout=30\r\n";
  const Exchange announce{"200 OK", "", {"ANNOUNCE"}};
  const Exchange setup{"200 OK", "", {"SETUP"}};
  const Step fail = Step::kFail;
  // clang-format off
  return {
      // The relay picks other channels for the second track.
      {"tcp", false, "rtsp://relay:8554/phone",
       {{"200 OK", "Public: OPTIONS, ANNOUNCE, SETUP, RECORD, GET_PARAMETER\r\n",
         {"ANNOUNCE rtsp://relay:8554/phone ", "Content-Type: application/sdp", "m=video"}},
        {"200 OK", "", {"SETUP rtsp://relay:8554/phone/trackID=0 ", tcp0}},
        {"200 OK", session + tcp0,
         {"SETUP rtsp://relay:8554/phone/trackID=1 ", "interleaved=2-3", "Session: 12345678\r\n"}},
        {"200 OK", session + "Transport: RTP/AVP/TCP;unicast;interleaved=6-7\r\n",
         {"RECORD rtsp://relay:8554/phone ", "Session: 12345678", "Range: npt=0.000-"}},
        {"200 OK", session, {}, Step::kRecording}}},
      {"udp_with_server_ports", true, "rtsp://relay/phone/",
       {{"200 OK", "", {"ANNOUNCE rtsp://relay:554/phone/ "}},
        {"200 OK", "", {"SETUP rtsp://relay:554/phone/trackID=0 ",
                        "RTP/AVP;unicast;client_port=40000-40001;mode=record"}},
        {"200 OK", session + "Transport: RTP/AVP;unicast;server_port=7000-7001\r\n",
         {"SETUP", "client_port=40002-40003"}},
        {"200 OK", "Transport: RTP/AVP;unicast;server_port=7002\r\n", {"RECORD"}},
        {"200 OK", "", {}, Step::kRecording}}},
      {"udp_setup_without_server_ports", true, "rtsp://relay/phone",
       {announce, setup,
        {"200 OK", session + "Transport: RTP/AVP;unicast\r\n", {}, fail, "server_port"}}},
      {"announce_refused", false, "rtsp://relay/phone",
       {announce, {"403 Forbidden", "", {}, fail, "ANNOUNCE answered 403 Forbidden"}}},
      {"setup_without_session", false, "rtsp://relay/phone",
       {announce, setup, {"200 OK", tcp0, {}, fail, "without a session"}}},
      {"tcp_setup_answered_with_udp", false, "rtsp://relay/phone",
       {announce, setup,
        {"200 OK", session + "Transport: RTP/AVP;unicast;server_port=1-2\r\n", {}, fail,
         "UDP transport"}}},
      {"digest_then_refused", false, "rtsp://us%3Aer:pw@relay/phone",
       {{"401 Unauthorized", digest,
         {"OPTIONS rtsp://relay:554/phone ", "Authorization: Digest username=\"us:er\"",
          "nonce=\"n1\"", "qop=auth", "nc=00000001"}},
        {"200 OK", "", {"ANNOUNCE", "Authorization: Digest", "nc=00000002"}},
        {"401 Unauthorized", digest, {}, fail, "refused the credentials"}}},
      // A relay that challenges every answer with a new nonce (never stale)
      // refuses the credentials: one new try per request, no more.
      {"digest_fresh_nonce_refused", false, "rtsp://u:p@relay/phone",
       {{"401 Unauthorized", digest, {"OPTIONS", "nonce=\"n1\""}},
        {"401 Unauthorized", "WWW-Authenticate: Digest realm=\"r\", nonce=\"n2\"\r\n", {}, fail,
         "refused the credentials"}}},
      {"basic_refused_in_clear", false, "rtsp://u:p@relay/phone",
       {{"401 Unauthorized", basic, {}, fail, "only Basic"}}},
      {"basic_inside_tls", false, "rtsps://u:p@relay/phone",
       {{"401 Unauthorized", basic, {"OPTIONS", "Authorization: Basic dTpw"}},
        {"200 OK", "", {"ANNOUNCE", "Authorization: Basic dTpw"}}}},
      {"credentials_wanted_none_given", false, "rtsp://relay/phone",
       {{"401 Unauthorized", digest, {}, fail, "none were given"}}},
  };
  // clang-format on
}

// Plays `d` and returns the protocol where the dialogue left it.
RtspPushProtocol Play(const Dialogue& d) {
  RtspPushProtocol protocol(Config(d.udp, d.url));
  Action action = protocol.Begin();
  EXPECT_EQ(action.step, Step::kSend) << d.name;
  EXPECT_EQ(action.request.compare(0, 8, "OPTIONS "), 0) << d.name << "\n" << action.request;
  for (const Exchange& e : d.exchanges) {
    const std::string last = action.request;
    action = Reply(protocol, last, e.status, e.headers);
    EXPECT_EQ(action.step, e.step)
        << d.name << " after " << last.substr(0, 40) << ": " << action.error;
    if (action.step != Step::kSend) {
      EXPECT_NE(action.error.find(e.error), std::string::npos) << d.name << ": " << action.error;
      break;
    }
    for (size_t i = 0; i < e.next.size(); ++i) {
      const size_t at = action.request.find(e.next[i]);
      EXPECT_TRUE(i == 0 ? at == 0 : at != std::string::npos)
          << d.name << ": " << (i == 0 ? "not starting with " : "no ") << e.next[i] << " in\n"
          << action.request;
    }
    EXPECT_EQ(action.request.find("us%3Aer"), std::string::npos) << "credentials in a URI";
    EXPECT_EQ(action.request.find(":pw@"), std::string::npos) << "credentials in a URI";
  }
  return protocol;
}

TEST(PushProtocolTest, Dialogues) {
  for (const Dialogue& d : Dialogues()) {
    Play(d);
  }
}

TEST(PushProtocolTest, WhileRecording) {
  RtspPushProtocol protocol = Play(Dialogues()[0]);
  ASSERT_TRUE(protocol.recording());
  EXPECT_EQ(protocol.keepalive_ms(), 15000);  // half the relay's timeout
  EXPECT_EQ(protocol.tracks()[1].rtp_channel, 6) << "the channels the relay chose";
  EXPECT_EQ(protocol.tracks()[1].rtcp_channel, 7);
  // Keep-alives: GET_PARAMETER while the relay serves it, then OPTIONS.
  std::string keepalive = protocol.KeepAlive();
  EXPECT_EQ(keepalive.compare(0, 14, "GET_PARAMETER "), 0) << keepalive;
  EXPECT_NE(keepalive.find("Session: 12345678"), std::string::npos) << keepalive;
  // An answer to an older request, then the right one.
  EXPECT_EQ(protocol.OnResponse(Parse("RTSP/1.0 200 OK\r\nCSeq: 1\r\n\r\n", true)).step,
            Step::kNothing);
  EXPECT_TRUE(protocol.awaiting());
  EXPECT_EQ(Reply(protocol, keepalive, "501 Not Implemented").step, Step::kNothing);
  EXPECT_FALSE(protocol.awaiting());
  keepalive = protocol.KeepAlive();
  EXPECT_EQ(keepalive.compare(0, 8, "OPTIONS "), 0) << keepalive;
  // A stale nonce is answered at once (here: no credentials were given); a
  // lost session ends the connection.
  EXPECT_EQ(Reply(protocol, keepalive, "401 Unauthorized",
                  "WWW-Authenticate: Digest realm=\"r\", nonce=\"x\"\r\n")
                .step,
            Step::kFail);
  EXPECT_EQ(Reply(protocol, protocol.KeepAlive(), "454 Session Not Found").step, Step::kFail);
  const std::string teardown = protocol.Teardown();
  EXPECT_EQ(teardown.compare(0, 9, "TEARDOWN "), 0) << teardown;
  EXPECT_NE(teardown.find("Session: 12345678"), std::string::npos) << teardown;
  EXPECT_EQ(RtspPushProtocol(Config(false)).Teardown(), "") << "no session, no TEARDOWN";
}

TEST(PushProtocolTest, RetryDelays) {
  // (failures, max_s, delay)
  const int cases[][3] = {{0, 30, 1},  {1, 30, 1},  {2, 30, 2},  {3, 30, 4},     {4, 30, 8},
                          {5, 30, 16}, {6, 30, 30}, {8, 30, 30}, {1000, 30, 30}, {3, 3, 3}};
  for (const auto& c : cases) {
    EXPECT_EQ(PushRetryDelayS(c[0], c[1]), c[2]) << c[0] << " failures, at most " << c[1];
  }
}

}  // namespace
}  // namespace qz_rtsp_internal_server
