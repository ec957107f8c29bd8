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

std::string Interleaved(int channel, const std::vector<uint8_t>& payload) {
  std::string frame(4, '\0');
  frame[0] = '$';
  frame[1] = static_cast<char>(channel);
  frame[2] = static_cast<char>(payload.size() >> 8);
  frame[3] = static_cast<char>(payload.size() & 0xff);
  frame.append(payload.begin(), payload.end());
  return frame;
}

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

bool PushConnection::OpenUdpPorts(std::vector<std::pair<int, int>>& ports, std::string& why) {
  asio::error_code ec;
  const asio::ip::address local = link_->socket().local_endpoint(ec).address();
  const asio::ip::address relay = link_->socket().remote_endpoint(ec).address();
  const size_t tracks = stream_->Describe().Tracks().size();
  for (size_t t = 0; t < tracks; ++t) {
    // An even RTP port and the next for RTCP (RFC 3550 11), drawn at random
    // from the dynamic range until a free pair turns up.
    bool bound = false;
    for (int attempt = 0; attempt < 64 && !bound; ++attempt) {
      const int port = 20000 + 2 * static_cast<int>(RtspRandom::Crypto().Next32() % 20000);
      auto rtp = std::unique_ptr<asio::ip::udp::socket>(new asio::ip::udp::socket(*env_.io));
      auto rtcp = std::unique_ptr<asio::ip::udp::socket>(new asio::ip::udp::socket(*env_.io));
      const asio::ip::udp::endpoint rtp_at(local, static_cast<unsigned short>(port));
      const asio::ip::udp::endpoint rtcp_at(local, static_cast<unsigned short>(port + 1));
      rtp->open(rtp_at.protocol(), ec);
      if (!ec) {
        rtp->bind(rtp_at, ec);
      }
      if (!ec) {
        rtcp->open(rtcp_at.protocol(), ec);
      }
      if (!ec) {
        rtcp->bind(rtcp_at, ec);
      }
      if (ec) {
        continue;
      }
      rtp->non_blocking(true, ec);
      rtcp->non_blocking(true, ec);
      udp_rtp_.push_back(std::move(rtp));
      udp_rtcp_.push_back(std::move(rtcp));
      ports.emplace_back(port, port + 1);
      rtp_to_.emplace_back(relay, 0);
      rtcp_to_.emplace_back(relay, 0);
      bound = true;
    }
    if (!bound) {
      why = "no free UDP port pair on " + local.to_string();
      return false;
    }
  }
  return true;
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
        break;  // the relay's RTCP receiver reports: nothing to act on
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
  if (env_.udp) {
    const auto& tracks = protocol_->tracks();
    for (size_t t = 0; t < tracks.size() && t < rtp_to_.size(); ++t) {
      rtp_to_[t].port(static_cast<unsigned short>(tracks[t].server_rtp_port));
      rtcp_to_[t].port(static_cast<unsigned short>(tracks[t].server_rtcp_port));
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

void PushConnection::Resync() {
  if (reader_.read_index < stream_->begin_index()) {
    // The relay did not take these in time: the ring let go of them.
    env_.counters->packets_dropped += stream_->begin_index() - reader_.read_index;
    const bool key = stream_->has_key_frame();
    reader_.read_index = key ? stream_->last_key_index() : stream_->end_index();
    wait_key_ = stream_->has_video() && !key;
    if (env_.request_key_frame) {
      env_.request_key_frame();
    }
  }
  while (wait_key_ && reader_.read_index < stream_->end_index()) {
    if (stream_->At(reader_.read_index)->key_frame_start) {
      wait_key_ = false;
    } else {
      ++reader_.read_index;
    }
  }
}

void PushConnection::SizeSendBuffer() {
  // Left to the kernel, the buffer grows to megabytes (Linux: tcp_wmem, 4
  // MiB): a relay that stopped reading then takes tens of seconds of the
  // stream before a write blocks and the stall timeout can start, and a
  // relay that reads too slowly is fed video that old instead of being
  // cut back to a key frame in the ring.
  if (env_.udp) {
    return;
  }
  const size_t want =
      std::clamp(stream_->byte_rate() * kSendBufferMs / 1000, kMinSendBuffer, kMaxSendBuffer);
  if (send_buffer_bytes_ != 0 && want * 4 > send_buffer_bytes_ * 3 &&
      want * 4 < send_buffer_bytes_ * 5) {
    return;  // within 25 %
  }
  asio::error_code ec;
  socket_.set_option(asio::socket_base::send_buffer_size(static_cast<int>(want)), ec);
  if (!ec) {
    send_buffer_bytes_ = want;
  }
}

void PushConnection::OnPackets() {
  if (closed_ || !recording() || finishing_) {
    return;
  }
  if (env_.udp) {
    SendUdp();
  } else {
    Flush();
  }
}

void PushConnection::SendUdp() {
  Resync();
  size_t bytes = 0;
  size_t packets = 0;
  while (reader_.read_index < stream_->end_index()) {
    const RtpPacket& packet = *stream_->At(reader_.read_index++);
    if (packet.track < 0 || static_cast<size_t>(packet.track) >= udp_rtp_.size()) {
      continue;
    }
    asio::error_code ec;
    udp_rtp_[packet.track]->send_to(asio::buffer(packet.UdpData(), packet.UdpSize()),
                                    rtp_to_[packet.track], 0, ec);
    if (ec) {
      ++env_.counters->packets_dropped;
    } else {
      bytes += packet.UdpSize();
      ++packets;
    }
  }
  env_.counters->bytes_sent += bytes;
  env_.counters->packets_sent += packets;
  stream_->SettleWritten(reader_.read_index, stream_->NowUs());
}

void PushConnection::SendReports(bool start) {
  const auto& tracks = protocol_->tracks();
  for (size_t t = 0; t < tracks.size(); ++t) {
    const uint64_t from = reader_.read_index;
    const std::vector<uint8_t> report =
        stream_->SenderReport(static_cast<int>(t), start ? &from : nullptr);
    if (report.empty()) {
      continue;
    }
    if (env_.udp) {
      asio::error_code ec;
      udp_rtcp_[t]->send_to(asio::buffer(report), rtcp_to_[t], 0, ec);
      if (!ec) {
        env_.counters->bytes_sent += report.size();
      }
    } else {
      Queue(Interleaved(tracks[t].rtcp_channel, report));
    }
  }
  if (!env_.udp) {
    Flush();
  }
}

void PushConnection::Queue(std::string bytes) {
  queued_.push_back(std::move(bytes));
}

void PushConnection::Flush() {
  if (writing_ || closed_) {
    return;
  }
  writing_control_.clear();
  writing_packets_.clear();
  buffers_.clear();
  while (!queued_.empty() && writing_control_.size() < kMaxBuffers / 2) {
    writing_control_.push_back(std::move(queued_.front()));
    queued_.pop_front();
  }
  size_t bytes = 0;
  for (const std::string& control : writing_control_) {
    buffers_.emplace_back(control.data(), control.size());
    bytes += control.size();
  }
  if (recording() && !finishing_ && !env_.udp) {
    Resync();
    const auto& tracks = protocol_->tracks();
    size_t header = 0;
    while (reader_.read_index < stream_->end_index() && buffers_.size() + 2 <= kMaxBuffers &&
           bytes < kMaxBytes) {
      const std::shared_ptr<RtpPacket>& packet = stream_->At(reader_.read_index++);
      if (packet->track < 0 || static_cast<size_t>(packet->track) >= tracks.size()) {
        continue;
      }
      const int channel = tracks[packet->track].rtp_channel;
      if (packet->TcpData()[1] == channel) {
        buffers_.emplace_back(packet->TcpData(), packet->TcpSize());
      } else {
        // The relay chose other channels than the packet was built for.
        std::array<uint8_t, 4>& h = headers_[header++];
        h = {static_cast<uint8_t>('$'), static_cast<uint8_t>(channel),
             static_cast<uint8_t>(packet->UdpSize() >> 8),
             static_cast<uint8_t>(packet->UdpSize() & 0xff)};
        buffers_.emplace_back(h.data(), h.size());
        buffers_.emplace_back(packet->UdpData(), packet->UdpSize());
      }
      bytes += packet->TcpSize();
      writing_packets_.push_back(packet);
    }
  }
  if (buffers_.empty()) {
    if (finishing_) {
      auto done = std::move(finished_);
      Close();
      if (done) {
        done();
      }
    }
    return;
  }
  writing_ = true;
  write_started_ms_ = NowMs();
  auto self = shared_from_this();
  link_->Write(buffers_, [this, self](const asio::error_code& ec, size_t written) {
    OnWritten(ec, written);
  });
}

void PushConnection::OnWritten(const asio::error_code& ec, size_t bytes) {
  writing_ = false;
  if (closed_) {
    return;
  }
  if (ec) {
    Fail("writing to the relay: " + ec.message());
    return;
  }
  env_.counters->bytes_sent += bytes;
  env_.counters->packets_sent += writing_packets_.size();
  writing_packets_.clear();
  if (reader_added_) {
    stream_->SettleWritten(reader_.read_index, stream_->NowUs());
  }
  Flush();
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
  Close();
  if (env_.on_failed) {
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
