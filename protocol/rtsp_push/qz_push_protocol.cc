#include "protocol/rtsp_push/qz_push_protocol.h"

#include <strings.h>

#include <cstdlib>

#include "protocol/rtsp_in_server/wire/qz_rtsp_headers.h"

namespace qz_rtsp_internal_server {
namespace {

std::string Status(const RtspRequest& response) {
  return std::to_string(response.status) + (response.reason.empty() ? "" : " " + response.reason);
}

std::vector<std::string> HeaderValues(const RtspRequest& message, const char* name) {
  std::vector<std::string> values;
  for (const auto& header : message.headers) {
    if (strcasecmp(header.first.c_str(), name) == 0) {
      values.push_back(header.second);
    }
  }
  return values;
}

}  // namespace

int PushRetryDelayS(int failures, int max_s) {
  int delay = 1;
  for (int i = 1; i < failures && delay < max_s; ++i) {
    delay *= 2;
  }
  return delay < max_s ? delay : max_s;
}

RtspPushProtocol::RtspPushProtocol(Config config)
    : config_(std::move(config)), auth_(config_.url.user, config_.url.password) {
  base_url_ = config_.url.WithoutCredentials();
  for (size_t i = 0; i < config_.tracks.size(); ++i) {
    PushTrack track;
    track.info = config_.tracks[i];
    track.url = base_url_ + (base_url_.back() == '/' ? "" : "/") + track.info.control;
    if (i < config_.client_ports.size()) {
      track.client_rtp_port = config_.client_ports[i].first;
      track.client_rtcp_port = config_.client_ports[i].second;
    }
    tracks_.push_back(track);
  }
}

const char* RtspPushProtocol::state_name() const {
  switch (state_) {
    case State::kIdle:
      return "idle";
    case State::kOptions:
      return "OPTIONS";
    case State::kAnnounce:
      return "ANNOUNCE";
    case State::kSetup:
      return "SETUP";
    case State::kRecord:
      return "RECORD";
    case State::kRecording:
      return "recording";
  }
  return "?";
}

std::string RtspPushProtocol::Write(const Sent& request) {
  std::vector<std::pair<std::string, std::string>> headers = request.headers;
  headers.emplace_back("User-Agent", config_.user_agent);
  if (!session_.empty()) {
    headers.emplace_back("Session", session_);
  }
  const std::string authorization = auth_.Authorize(request.method, request.uri);
  if (!authorization.empty()) {
    headers.emplace_back("Authorization", authorization);
  }
  return WriteRtspRequest(request.method, request.uri, ++cseq_, headers, request.body);
}

RtspPushProtocol::Action RtspPushProtocol::Send(Sent request) {
  Action action;
  action.step = Step::kSend;
  action.request = Write(request);
  awaiting_cseq_ = cseq_;
  last_ = std::move(request);
  return action;
}

RtspPushProtocol::Action RtspPushProtocol::Fail(const std::string& error) {
  Action action;
  action.step = Step::kFail;
  action.error = error;
  awaiting_cseq_ = 0;
  return action;
}

RtspPushProtocol::Action RtspPushProtocol::Begin() {
  state_ = State::kOptions;
  return Send({"OPTIONS", base_url_, {}, std::string()});
}

RtspPushProtocol::Action RtspPushProtocol::SetupNext() {
  if (setup_index_ == tracks_.size()) {
    state_ = State::kRecord;
    return Send({"RECORD", base_url_, {{"Range", "npt=0.000-"}}, std::string()});
  }
  const PushTrack& track = tracks_[setup_index_];
  RtspTransport transport;
  transport.mode = "record";
  if (config_.udp) {
    transport.kind = RtspTransport::Kind::kUdp;
    transport.client_rtp_port = track.client_rtp_port;
    transport.client_rtcp_port = track.client_rtcp_port;
  } else {
    transport.kind = RtspTransport::Kind::kTcp;
    transport.interleaved_rtp = static_cast<int>(2 * setup_index_);
    transport.interleaved_rtcp = static_cast<int>(2 * setup_index_ + 1);
  }
  state_ = State::kSetup;
  return Send({"SETUP", track.url, {{"Transport", WriteRtspTransport(transport)}}, std::string()});
}

RtspPushProtocol::Action RtspPushProtocol::OnSetup(const RtspRequest& response) {
  PushTrack& track = tracks_[setup_index_];
  const std::string* session = response.Header("Session");
  RtspSessionHeader parsed;
  if (session_.empty()) {
    if (session == nullptr || !ParseRtspSession(*session, parsed)) {
      return Fail("SETUP answered without a session");
    }
    session_ = parsed.id;
    if (parsed.timeout_s > 0) {
      session_timeout_s_ = parsed.timeout_s < 10 ? 10 : parsed.timeout_s;
    }
  }
  RtspTransport transport;
  const std::string* header = response.Header("Transport");
  std::vector<RtspTransport> transports;
  if (header != nullptr && ParseRtspTransports(*header, transports) && !transports.empty()) {
    transport = transports.front();
  } else if (config_.udp) {
    return Fail("SETUP answered without a Transport");
  }
  if (config_.udp) {
    if (transport.kind != RtspTransport::Kind::kUdp || transport.server_rtp_port <= 0) {
      return Fail("SETUP answered without the relay's UDP ports (server_port)");
    }
    track.server_rtp_port = transport.server_rtp_port;
    track.server_rtcp_port =
        transport.server_rtcp_port > 0 ? transport.server_rtcp_port : transport.server_rtp_port + 1;
  } else {
    // The channels the relay confirmed (it may pick others), else ours.
    const int asked = static_cast<int>(2 * setup_index_);
    if (header != nullptr && transport.kind != RtspTransport::Kind::kTcp) {
      return Fail("SETUP over TCP answered with a UDP transport");
    }
    track.rtp_channel = transport.interleaved_rtp >= 0 ? transport.interleaved_rtp : asked;
    track.rtcp_channel = transport.interleaved_rtcp >= 0 ? transport.interleaved_rtcp : asked + 1;
  }
  ++setup_index_;
  return SetupNext();
}

RtspPushProtocol::Action RtspPushProtocol::OnResponse(const RtspRequest& response) {
  const std::string* cseq = response.Header("CSeq");
  if (awaiting_cseq_ == 0 || (cseq != nullptr && std::atoi(cseq->c_str()) != awaiting_cseq_)) {
    return Action();  // a late answer to a keep-alive, or one to nothing
  }
  awaiting_cseq_ = 0;
  if (response.status == 401) {
    if (!auth_.has_credentials()) {
      return Fail(last_.method + " answered 401: the relay wants credentials and none were given");
    }
    // One new try per request: its first 401 brings the challenge (or a
    // fresh nonce for a stale one); a second one refuses the credentials,
    // whatever nonce it offers. Asking on would loop as fast as a relay
    // that challenges every answer can answer.
    const std::vector<std::string> challenges = HeaderValues(response, "WWW-Authenticate");
    if (challenges.empty()) {
      return Fail(last_.method + " answered 401 without a challenge (no WWW-Authenticate)");
    }
    const bool allow_basic = config_.url.tls || config_.allow_basic_in_clear;
    if (auth_retried_ || !auth_.OnChallenges(challenges, allow_basic)) {
      const bool basic_only = !auth_retried_ && !allow_basic && auth_.scheme().empty() &&
                              RtspClientAuth("u", "p").OnChallenges(challenges, true);
      return Fail(last_.method + (basic_only ? " answered 401: the relay offers only Basic "
                                               "authentication, which would send the password "
                                               "in clear (use rtsps://, or allow it)"
                                             : " answered 401: the relay refused the credentials"));
    }
    auth_retried_ = true;
    Sent again = last_;
    return Send(std::move(again));
  }
  auth_retried_ = false;
  if (state_ == State::kRecording) {
    // Keep-alives: a relay without GET_PARAMETER is asked with OPTIONS from
    // now on; one that lost the session ends this connection.
    if (response.status == 454) {
      return Fail("the relay lost the session (454 to a keep-alive)");
    }
    if (response.status == 405 || response.status == 501) {
      get_parameter_ = false;
    }
    return Action();
  }
  if (response.status < 200 || response.status >= 300) {
    return Fail(last_.method + " answered " + Status(response));
  }
  switch (state_) {
    case State::kOptions: {
      if (const std::string* pub = response.Header("Public")) {
        for (const std::string& method : ParseRtspTokenList(*pub)) {
          get_parameter_ |= method == "GET_PARAMETER";
        }
      }
      state_ = State::kAnnounce;
      return Send({"ANNOUNCE", base_url_, {{"Content-Type", "application/sdp"}}, config_.sdp});
    }
    case State::kAnnounce:
      if (tracks_.empty()) {
        return Fail("the stream has no track to send");
      }
      return SetupNext();
    case State::kSetup:
      return OnSetup(response);
    case State::kRecord: {
      state_ = State::kRecording;
      Action action;
      action.step = Step::kRecording;
      return action;
    }
    case State::kIdle:
    case State::kRecording:
      break;
  }
  return Action();
}

std::string RtspPushProtocol::KeepAlive() {
  Sent request{get_parameter_ ? "GET_PARAMETER" : "OPTIONS", base_url_, {}, std::string()};
  std::string text = Write(request);
  awaiting_cseq_ = cseq_;
  last_ = std::move(request);
  return text;
}

std::string RtspPushProtocol::Teardown() {
  if (session_.empty()) {
    return std::string();
  }
  awaiting_cseq_ = 0;
  return Write({"TEARDOWN", base_url_, {}, std::string()});
}

}  // namespace qz_rtsp_internal_server
