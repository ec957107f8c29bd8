#include "protocol/rtsp_push/qz_push_protocol.h"

#include <string>
#include <utility>
#include <vector>

#include "gtest/gtest.h"
#include "protocol/rtsp_in_server/wire/qz_rtsp_auth.h"

namespace qz_rtsp_internal_server {
namespace {

using Step = RtspPushProtocol::Step;

RtspPushProtocol::Config Config(bool udp, const std::string& url = "rtsp://relay:8554/phone") {
  RtspPushProtocol::Config config;
  EXPECT_TRUE(ParseRtspUrl(url, config.url));
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
  const RtspParseResult result = parser.Next();
  EXPECT_EQ(result, responses ? RtspParseResult::kResponse : RtspParseResult::kRequest) << text;
  return parser.request();
}

// The relay's answer to `request`: `status_and_headers` is "200 OK" and
// header lines ("Session: 1;timeout=30\r\n"); CSeq is the request's.
std::string Answer(const std::string& request,
                   const std::string& status,
                   const std::string& headers = "") {
  const std::string* cseq = Parse(request, false).Header("CSeq");
  return "RTSP/1.0 " + status + "\r\nCSeq: " + (cseq ? *cseq : "?") + "\r\n" + headers + "\r\n";
}

// One exchange of a scripted dialogue: the relay answers the request just
// sent with `status` and `headers`; the protocol then sends a request that
// starts with `next` and holds every text of `holds`, or, with `next`
// empty, ends by `step` (kRecording, or kFail with `error` in its reason).
struct Exchange {
  Exchange(std::string status_,
           std::string headers_,
           std::string next_,
           std::vector<std::string> holds_,
           Step step_ = Step::kSend,
           std::string error_ = "")
      : status(std::move(status_)),
        headers(std::move(headers_)),
        next(std::move(next_)),
        holds(std::move(holds_)),
        step(step_),
        error(std::move(error_)) {}
  std::string status;
  std::string headers;
  std::string next;
  std::vector<std::string> holds;
  Step step;
  std::string error;
};

struct Dialogue {
  const char* name;
  bool udp;
  const char* url;
  std::vector<Exchange> exchanges;
};

const char kSessionReply[] = "Session: 12345678;timeout=30\r\n";

std::vector<Dialogue> Dialogues() {
  const std::string digest = "WWW-Authenticate: Digest realm=\"r\", nonce=\"n1\", qop=\"auth\"\r\n";
  const std::string tcp0 = "Transport: RTP/AVP/TCP;unicast;interleaved=0-1;mode=record\r\n";
  return {
      {"tcp_relay_picks_other_channels",
       false,
       "rtsp://relay:8554/phone",
       {{"200 OK",
         "Public: OPTIONS, ANNOUNCE, SETUP, RECORD, GET_PARAMETER\r\n",
         "ANNOUNCE rtsp://relay:8554/phone ",
         {"Content-Type: application/sdp", "m=video"}},
        {"200 OK",
         "",
         "SETUP rtsp://relay:8554/phone/trackID=0 ",
         {"Transport: RTP/AVP/TCP;unicast;interleaved=0-1;mode=record"}},
        {"200 OK",
         std::string(kSessionReply) + tcp0,
         "SETUP rtsp://relay:8554/phone/trackID=1 ",
         {"interleaved=2-3", "Session: 12345678\r\n"}},
        {"200 OK",
         std::string(kSessionReply) + "Transport: RTP/AVP/TCP;unicast;interleaved=6-7\r\n",
         "RECORD rtsp://relay:8554/phone ",
         {"Session: 12345678", "Range: npt=0.000-"}},
        {"200 OK", kSessionReply, "", {}, Step::kRecording}}},
      {"udp_with_server_ports",
       true,
       "rtsp://relay/phone/",
       {{"200 OK", "", "ANNOUNCE rtsp://relay:554/phone/ ", {}},
        {"200 OK",
         "",
         "SETUP rtsp://relay:554/phone/trackID=0 ",
         {"RTP/AVP;unicast;client_port=40000-40001;mode=record"}},
        {"200 OK",
         std::string(kSessionReply) + "Transport: RTP/AVP;unicast;server_port=7000-7001\r\n",
         "SETUP",
         {"client_port=40002-40003"}},
        {"200 OK", "Transport: RTP/AVP;unicast;server_port=7002\r\n", "RECORD", {}},
        {"200 OK", "", "", {}, Step::kRecording}}},
      {"udp_setup_without_server_ports",
       true,
       "rtsp://relay/phone",
       {{"200 OK", "", "ANNOUNCE", {}},
        {"200 OK", "", "SETUP", {}},
        {"200 OK",
         std::string(kSessionReply) + "Transport: RTP/AVP;unicast\r\n",
         "",
         {},
         Step::kFail,
         "server_port"}}},
      {"announce_refused",
       false,
       "rtsp://relay/phone",
       {{"200 OK", "", "ANNOUNCE", {}},
        {"403 Forbidden", "", "", {}, Step::kFail, "ANNOUNCE answered 403 Forbidden"}}},
      {"setup_without_session",
       false,
       "rtsp://relay/phone",
       {{"200 OK", "", "ANNOUNCE", {}},
        {"200 OK", "", "SETUP", {}},
        {"200 OK", tcp0, "", {}, Step::kFail, "without a session"}}},
      {"tcp_setup_answered_with_udp",
       false,
       "rtsp://relay/phone",
       {{"200 OK", "", "ANNOUNCE", {}},
        {"200 OK", "", "SETUP", {}},
        {"200 OK",
         std::string(kSessionReply) + "Transport: RTP/AVP;unicast;server_port=1-2\r\n",
         "",
         {},
         Step::kFail,
         "UDP transport"}}},
      {"digest_then_refused",
       false,
       "rtsp://us%3Aer:pw@relay/phone",
       {{"401 Unauthorized",
         digest,
         "OPTIONS rtsp://relay:554/phone ",
         {"Authorization: Digest username=\"us:er\"", "nonce=\"n1\"", "qop=auth", "nc=00000001"}},
        {"200 OK", "", "ANNOUNCE", {"Authorization: Digest", "nc=00000002"}},
        {"401 Unauthorized", digest, "", {}, Step::kFail, "refused the credentials"}}},
      // A relay that challenges every answer with a new nonce (never stale)
      // refuses the credentials: one new try per request, no more.
      {"digest_fresh_nonce_refused",
       false,
       "rtsp://u:p@relay/phone",
       {{"401 Unauthorized", digest, "OPTIONS", {"nonce=\"n1\""}},
        {"401 Unauthorized",
         "WWW-Authenticate: Digest realm=\"r\", nonce=\"n2\"\r\n",
         "",
         {},
         Step::kFail,
         "refused the credentials"}}},
      {"basic_refused_in_clear",
       false,
       "rtsp://u:p@relay/phone",
       {{"401 Unauthorized",
         "WWW-Authenticate: Basic realm=\"r\"\r\n",
         "",
         {},
         Step::kFail,
         "only Basic"}}},
      {"basic_inside_tls",
       false,
       "rtsps://u:p@relay/phone",
       {{"401 Unauthorized",
         "WWW-Authenticate: Basic realm=\"r\"\r\n",
         "OPTIONS",
         {"Authorization: Basic dTpw"}},
        {"200 OK", "", "ANNOUNCE", {"Authorization: Basic dTpw"}}}},
      {"credentials_wanted_none_given",
       false,
       "rtsp://relay/phone",
       {{"401 Unauthorized", digest, "", {}, Step::kFail, "none were given"}}},
  };
}

TEST(PushProtocolTest, Dialogues) {
  for (const Dialogue& d : Dialogues()) {
    RtspPushProtocol protocol(Config(d.udp, d.url));
    RtspPushProtocol::Action action = protocol.Begin();
    ASSERT_EQ(action.step, Step::kSend) << d.name;
    EXPECT_EQ(action.request.compare(0, 8, "OPTIONS "), 0) << d.name << "\n" << action.request;
    for (const Exchange& e : d.exchanges) {
      const std::string last = action.request;
      action = protocol.OnResponse(Parse(Answer(last, e.status, e.headers), true));
      ASSERT_EQ(action.step, e.step)
          << d.name << " after " << last.substr(0, 40) << ": " << action.error;
      if (e.step == Step::kFail) {
        EXPECT_NE(action.error.find(e.error), std::string::npos) << d.name << ": " << action.error;
        break;
      }
      if (e.step == Step::kSend) {
        EXPECT_EQ(action.request.compare(0, e.next.size(), e.next), 0) << d.name << "\n"
                                                                       << action.request;
        for (const std::string& text : e.holds) {
          EXPECT_NE(action.request.find(text), std::string::npos)
              << d.name << ": no " << text << " in\n"
              << action.request;
        }
        EXPECT_EQ(action.request.find("us%3Aer"), std::string::npos) << "credentials in a URI";
        EXPECT_EQ(action.request.find(":pw@"), std::string::npos) << "credentials in a URI";
      }
    }
  }
}

// Drives a TCP dialogue to RECORD; the relay names session timeout 30 s.
RtspPushProtocol Recording(const std::string& public_methods) {
  RtspPushProtocol protocol(Config(false));
  std::string request = protocol.Begin().request;
  const std::string setup_reply =
      std::string(kSessionReply) + "Transport: RTP/AVP/TCP;unicast;interleaved=4-5\r\n";
  const std::string replies[] = {public_methods, "", setup_reply, setup_reply, ""};
  for (const std::string& headers : replies) {
    const RtspPushProtocol::Action action =
        protocol.OnResponse(Parse(Answer(request, "200 OK", headers), true));
    request = action.request;
  }
  EXPECT_TRUE(protocol.recording());
  return protocol;
}

TEST(PushProtocolTest, WhileRecording) {
  RtspPushProtocol protocol = Recording("Public: OPTIONS, GET_PARAMETER, RECORD\r\n");
  EXPECT_EQ(protocol.keepalive_ms(), 15000);  // half the relay's timeout
  EXPECT_EQ(protocol.tracks()[0].rtp_channel, 4);
  EXPECT_EQ(protocol.tracks()[0].rtcp_channel, 5);
  // Keep-alives: GET_PARAMETER while the relay serves it, then OPTIONS.
  std::string keepalive = protocol.KeepAlive();
  EXPECT_EQ(keepalive.compare(0, 14, "GET_PARAMETER "), 0) << keepalive;
  EXPECT_NE(keepalive.find("Session: 12345678"), std::string::npos);
  // An answer to an older request, then the right one.
  EXPECT_EQ(protocol.OnResponse(Parse("RTSP/1.0 200 OK\r\nCSeq: 1\r\n\r\n", true)).step,
            Step::kNothing);
  EXPECT_TRUE(protocol.awaiting());
  EXPECT_EQ(protocol.OnResponse(Parse(Answer(keepalive, "501 Not Implemented"), true)).step,
            Step::kNothing);
  EXPECT_FALSE(protocol.awaiting());
  keepalive = protocol.KeepAlive();
  EXPECT_EQ(keepalive.compare(0, 8, "OPTIONS "), 0) << keepalive;
  // A stale nonce is answered at once; a lost session ends the connection.
  const RtspPushProtocol::Action again =
      protocol.OnResponse(Parse(Answer(keepalive, "401 Unauthorized",
                                       "WWW-Authenticate: Digest realm=\"r\", nonce=\"x\"\r\n"),
                                true));
  EXPECT_EQ(again.step, Step::kFail) << "no credentials were given";
  keepalive = protocol.KeepAlive();
  EXPECT_EQ(protocol.OnResponse(Parse(Answer(keepalive, "454 Session Not Found"), true)).step,
            Step::kFail);
  const std::string teardown = protocol.Teardown();
  EXPECT_EQ(teardown.compare(0, 9, "TEARDOWN "), 0) << teardown;
  EXPECT_NE(teardown.find("Session: 12345678"), std::string::npos);
  EXPECT_EQ(RtspPushProtocol(Config(false)).Teardown(), "") << "no session, no TEARDOWN";
}

TEST(PushProtocolTest, RetryDelays) {
  const int want[] = {1, 1, 2, 4, 8, 16, 30, 30, 30};
  for (int failures = 0; failures < 9; ++failures) {
    EXPECT_EQ(PushRetryDelayS(failures), want[failures]) << failures;
  }
  EXPECT_EQ(PushRetryDelayS(3, 3), 3);
  EXPECT_EQ(PushRetryDelayS(1000), 30);
}

}  // namespace
}  // namespace qz_rtsp_internal_server
