// The RTSP dialogue of a client that publishes a stream to a relay (RFC 2326
// 10.3 ANNOUNCE, 10.11 RECORD): OPTIONS, ANNOUNCE with the stream's SDP,
// SETUP of every track with mode=record, RECORD, then keep-alives and a
// TEARDOWN. Pure: it is handed the relay's responses and says what to send
// next; the connection that carries it, the media and the timers are not
// its business, so that tests drive it with scripted answers.
#ifndef PROTOCOL_RTSP_PUSH_QZ_PUSH_PROTOCOL_H_
#define PROTOCOL_RTSP_PUSH_QZ_PUSH_PROTOCOL_H_

#include <string>
#include <utility>
#include <vector>

#include "protocol/rtsp_in_server/wire/qz_rtsp_auth.h"
#include "protocol/rtsp_in_server/wire/qz_rtsp_message.h"
#include "protocol/rtsp_in_server/wire/qz_rtsp_url.h"
#include "protocol/rtsp_in_server/wire/qz_sdp.h"

namespace qz_rtsp_internal_server {

// One track as the relay agreed to take it.
struct PushTrack {
  RtpTrackInfo info;
  std::string url;  // what SETUP named
  // TCP: the interleaved channels (RTP, RTCP) the relay confirmed.
  int rtp_channel = -1;
  int rtcp_channel = -1;
  // UDP: our ports (announced in SETUP; media must leave from them) and
  // the relay's.
  int client_rtp_port = -1;
  int client_rtcp_port = -1;
  int server_rtp_port = -1;
  int server_rtcp_port = -1;
};

class RtspPushProtocol {
 public:
  struct Config {
    RtspUrl url;  // with the credentials, if any
    bool udp = false;
    std::vector<RtpTrackInfo> tracks;
    std::string sdp;
    // UDP: our (RTP, RTCP) port pair of each track, in track order.
    std::vector<std::pair<int, int>> client_ports;
    std::string user_agent = "qz-rtsp-push";
    // Answer a relay that offers only Basic authentication, which puts the
    // password on the wire, over plain rtsp:// too (inside rtsps:// it is
    // always answered).
    bool allow_basic_in_clear = false;
  };

  enum class Step {
    kNothing,    // wait for the next response
    kSend,       // send `request`
    kRecording,  // RECORD was accepted: send media from now on
    kFail,       // give up on this connection: `error` says why
  };
  struct Action {
    Step step = Step::kNothing;
    std::string request;
    std::string error;
  };

  explicit RtspPushProtocol(Config config);

  // The first request (OPTIONS).
  Action Begin();
  // A response from the relay. Responses that answer no request of ours
  // (another CSeq) are ignored.
  Action OnResponse(const RtspRequest& response);

  bool recording() const { return state_ == State::kRecording; }
  // Whether a request waits for its answer (and since which request).
  bool awaiting() const { return awaiting_cseq_ != 0; }
  const std::string& awaiting_method() const { return last_.method; }

  // While recording: a keep-alive (GET_PARAMETER when the relay lists it
  // in Public, else OPTIONS, with the session), due every keepalive_ms().
  std::string KeepAlive();
  int keepalive_ms() const { return session_timeout_s_ * 1000 / 2; }
  // The session's TEARDOWN; empty before a session was set up.
  std::string Teardown();

  const std::vector<PushTrack>& tracks() const { return tracks_; }
  const std::string& session() const { return session_; }
  // "OPTIONS", "ANNOUNCE", "SETUP", "RECORD" or "recording": where it is.
  const char* state_name() const;

 private:
  enum class State { kIdle, kOptions, kAnnounce, kSetup, kRecord, kRecording };
  struct Sent {
    std::string method;
    std::string uri;
    std::vector<std::pair<std::string, std::string>> headers;
    std::string body;
  };

  Action Send(Sent request);
  Action Fail(const std::string& error);
  Action SetupNext();
  Action OnSetup(const RtspRequest& response);
  std::string Write(const Sent& request);

  Config config_;
  std::string base_url_;
  State state_ = State::kIdle;
  int cseq_ = 0;
  int awaiting_cseq_ = 0;
  Sent last_;                  // the request awaiting its answer, to send again with credentials
  bool auth_retried_ = false;  // the request awaiting its answer was sent again after a 401
  RtspClientAuth auth_;
  size_t setup_index_ = 0;
  std::vector<PushTrack> tracks_;
  std::string session_;
  int session_timeout_s_ = 60;
  bool get_parameter_ = false;  // the relay listed GET_PARAMETER in Public
};

// Seconds to wait before connection attempt `failures` + 1 after that many
// failures in a row: 1, 2, 4, 8, 16, then `max_s`.
int PushRetryDelayS(int failures, int max_s = 30);

}  // namespace qz_rtsp_internal_server

#endif  // PROTOCOL_RTSP_PUSH_QZ_PUSH_PROTOCOL_H_
