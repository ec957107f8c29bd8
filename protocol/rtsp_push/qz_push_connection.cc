#include "protocol/rtsp_push/qz_push_connection.h"

#include <algorithm>

#include "protocol/rtsp_in_server/media/qz_rtsp_seams.h"
#include "protocol/rtsp_in_server/wire/qz_sdp.h"

namespace qz_rtsp_internal_server {
namespace {

// A cached key frame older than this is not where a push starts: the relay
// would pass a burst of stale pictures on, and its viewers would stay that
// far behind. The connection waits for the fresh one it asks for instead.
constexpr long long kFreshKeyFrameMs = 500;

}  // namespace

PushConnection::PushConnection(Env env, std::shared_ptr<RtspStream> stream)
    : env_(std::move(env)), stream_(std::move(stream)), resolver_(*env_.io), socket_(*env_.io) {
  reader_.viewer = false;
}

PushConnection::~PushConnection() {
  Close();
}

void PushConnection::SetState(const std::string& state) {
  if (env_.on_state) {
    env_.on_state(state);
  }
}

void PushConnection::Start() {
  started_ms_ = NowMs();
  SetState("connecting");
  auto self = shared_from_this();
  resolver_.async_resolve(
      env_.url.host, std::to_string(env_.url.port),
      [this, self](const asio::error_code& ec, asio::ip::tcp::resolver::results_type results) {
        if (closed_) {
          return;
        }
        if (ec) {
          Fail("cannot resolve " + env_.url.host + ": " + ec.message());
          return;
        }
        asio::async_connect(
            socket_, results,
            [this, self](const asio::error_code& ec, const asio::ip::tcp::endpoint&) {
              if (closed_) {
                return;
              }
              if (ec) {
                Fail("cannot connect to " + env_.url.host + ":" + std::to_string(env_.url.port) +
                     ": " + ec.message());
                return;
              }
              Handshake();
            });
      });
}

void PushConnection::Handshake() {
  asio::error_code ec;
  socket_.set_option(asio::ip::tcp::no_delay(true), ec);
  link_ = env_.tls != nullptr ? env_.tls->Wrap(std::move(socket_), env_.url.host)
                              : MakeTcpLink(std::move(socket_));
  if (!link_) {
    Fail("cannot make a TLS link (out of memory)");
    return;
  }
  auto self = shared_from_this();
  link_->Handshake([this, self](const asio::error_code& ec) {
    if (closed_) {
      return;
    }
    if (ec) {
      Fail("the TLS handshake with the relay failed: " + ec.message());
      return;
    }
    OnConnected();
  });
}

void PushConnection::OnConnected() {
  asio::error_code ec;
  const StreamDescription desc = stream_->Describe();
  RtspPushProtocol::Config config;
  config.url = env_.url;
  config.udp = env_.udp;
  config.allow_basic_in_clear = env_.allow_basic_in_clear;
  config.tracks = desc.Tracks();
  const asio::ip::address local = link_->socket().local_endpoint(ec).address();
  config.sdp = BuildSdp(desc, local.to_string(), RtspRandom::Crypto().Next32());
  if (env_.udp) {
    std::string why;
    if (!OpenUdpPorts(config.client_ports, why)) {
      Fail(why);
      return;
    }
  }
  announced_ = config.tracks;
  protocol_.reset(new RtspPushProtocol(std::move(config)));
  Read();
  Act(protocol_->Begin());
}

void PushConnection::Read() {
  auto self = shared_from_this();
  link_->ReadSome(asio::buffer(read_buffer_),
                  [this, self](const asio::error_code& ec, size_t bytes) {
                    if (closed_) {
                      return;
                    }
                    if (ec) {
                      Fail(ec == asio::error::eof ? std::string("the relay closed the connection")
                                                  : "reading from the relay: " + ec.message());
                      return;
                    }
                    OnRead(bytes);
                  });
}

void PushConnection::OnRead(size_t bytes) {
  parser_.Feed(read_buffer_.data(), bytes);
  for (;;) {
    switch (parser_.Next()) {
      case RtspParseResult::kNeedMore:
        Read();
        return;
      case RtspParseResult::kBadRequest:
        Fail("the relay sent a malformed message: " + parser_.error());
        return;
      case RtspParseResult::kInterleaved:
        for (const PushTrack& track : protocol_->tracks()) {
          if (track.rtcp_channel == parser_.channel()) {
            OnRelayRtcp(reinterpret_cast<const uint8_t*>(parser_.payload().data()),
                        parser_.payload().size());
          }
        }
        break;
      case RtspParseResult::kRequest: {
        // A relay may ask something of us (OPTIONS as a keep-alive of its
        // own); nothing but OPTIONS is served.
        const RtspRequest& request = parser_.request();
        const std::string* cseq = request.Header("CSeq");
        const bool options = request.method == "OPTIONS";
        Queue(WriteRtspResponse(
            options ? 200 : 501, cseq == nullptr ? "" : *cseq,
            options ? std::vector<std::pair<std::string, std::string>>{{"Public", "OPTIONS"}}
                    : std::vector<std::pair<std::string, std::string>>{}));
        Flush();
        break;
      }
      case RtspParseResult::kResponse:
        Act(protocol_->OnResponse(parser_.request()));
        if (closed_) {
          return;
        }
        break;
    }
  }
}

void PushConnection::Act(const RtspPushProtocol::Action& action) {
  switch (action.step) {
    case RtspPushProtocol::Step::kNothing:
      break;
    case RtspPushProtocol::Step::kSend:
      SetState(protocol_->state_name());
      request_sent_ms_ = NowMs();
      Queue(action.request);
      Flush();
      break;
    case RtspPushProtocol::Step::kRecording:
      StartRecording();
      break;
    case RtspPushProtocol::Step::kFail:
      Fail(action.error);
      break;
  }
}

void PushConnection::StartRecording() {
  const long long now = NowMs();
  SetState("recording");
  {
    // Reports of an earlier recording describe another session of the relay.
    std::lock_guard<std::mutex> lock(env_.counters->reception_mutex);
    env_.counters->reception = RtcpReception();
  }
  if (env_.udp) {
    const auto& tracks = protocol_->tracks();
    for (size_t t = 0; t < tracks.size() && t < rtp_to_.size(); ++t) {
      rtp_to_[t].port(static_cast<unsigned short>(tracks[t].server_rtp_port));
      rtcp_to_[t].port(static_cast<unsigned short>(tracks[t].server_rtcp_port));
    }
    rtcp_buffers_.resize(udp_rtcp_.size());
    rtcp_from_.resize(udp_rtcp_.size());
    for (size_t t = 0; t < udp_rtcp_.size(); ++t) {
      ReadUdpRtcp(t);
    }
  }
  // Start at the cached key frame when it is fresh, else at the next one,
  // which is asked for.
  const bool fresh = stream_->has_key_frame() &&
                     now - stream_->At(stream_->last_key_index())->arrival_ms <= kFreshKeyFrameMs;
  reader_.read_index = fresh ? stream_->last_key_index() : stream_->end_index();
  wait_key_ = stream_->has_video() && !fresh;
  reader_.reading = true;
  // What was posted before this recording began waited for no relay: the
  // write delays count from here on.
  stream_->ForgetUnwritten();
  stream_->AddReader(&reader_);
  SizeSendBuffer();
  reader_added_ = true;
  if (env_.request_key_frame) {
    env_.request_key_frame();
  }
  next_keepalive_ms_ = now + protocol_->keepalive_ms();
  next_report_ms_ = now + kReportIntervalMs;
  if (env_.on_recording) {
    env_.on_recording();
  }
  // Each track's report before its media, anchored at the first packet the
  // relay gets (none yet when waiting for a key frame: then the periodic
  // ones follow).
  SendReports(true);
  OnPackets();
}

void PushConnection::Tick() {
  if (closed_) {
    return;
  }
  const long long now = NowMs();
  if (!protocol_) {
    if (now - started_ms_ > env_.response_timeout_ms) {
      Fail("cannot connect to " + env_.url.host + ":" + std::to_string(env_.url.port) + " within " +
           std::to_string(env_.response_timeout_ms) + " ms");
    }
    return;
  }
  // A keep-alive left unanswered is the only sign of a dead relay when the
  // media goes over UDP; over TCP a relay that stops reading shows in the
  // writes, and some relays (FFmpeg's listen mode) never answer requests
  // while they record.
  if (protocol_->awaiting() && (!recording() || env_.udp) &&
      now - request_sent_ms_ > env_.response_timeout_ms) {
    Fail("no answer to " + protocol_->awaiting_method() + " within " +
         std::to_string(env_.response_timeout_ms) + " ms");
    return;
  }
  if (writing_ && now - write_started_ms_ > env_.write_stall_timeout_ms) {
    Fail("the relay has taken nothing for " + std::to_string(env_.write_stall_timeout_ms) + " ms");
    return;
  }
  if (!recording() || finishing_) {
    return;
  }
  if (now >= next_keepalive_ms_) {
    next_keepalive_ms_ = now + protocol_->keepalive_ms();
    // A keep-alive still unanswered keeps its time: keep-alives come every
    // half session timeout, which may be shorter than the response timeout,
    // and the next one must not restart the wait for an answer.
    if (!protocol_->awaiting()) {
      request_sent_ms_ = now;
    }
    Queue(protocol_->KeepAlive());
    Flush();
  }
  if (now >= next_report_ms_) {
    next_report_ms_ = now + kReportIntervalMs;
    SendReports(false);
    SizeSendBuffer();  // the bit rate may have changed
  }
}

void PushConnection::Finish(std::function<void()> done) {
  if (closed_ || !recording() || finishing_) {
    Close();
    if (done) {
      done();
    }
    return;
  }
  finishing_ = true;
  finished_ = std::move(done);
  Queue(protocol_->Teardown());
  Flush();
}

void PushConnection::Fail(const std::string& error) {
  if (closed_) {
    return;
  }
  // Ending anyway (the TEARDOWN could not be written): finished, not failed.
  std::function<void()> done = finishing_ ? std::move(finished_) : nullptr;
  Close();
  if (finishing_) {
    if (done) {
      done();
    }
  } else if (env_.on_failed) {
    env_.on_failed(error);
  }
}

void PushConnection::Close() {
  if (closed_) {
    return;
  }
  closed_ = true;
  // `done` of Finish() holds this connection: kept, neither would go.
  finished_ = nullptr;
  asio::error_code ec;
  resolver_.cancel();
  socket_.close(ec);
  if (link_) {
    link_->Close();
  }
  for (auto& socket : udp_rtp_) {
    socket->close(ec);
  }
  for (auto& socket : udp_rtcp_) {
    socket->close(ec);
  }
  if (reader_added_) {
    stream_->RemoveReader(&reader_);
    reader_added_ = false;
  }
}

}  // namespace qz_rtsp_internal_server
