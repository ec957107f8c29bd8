// The media side of a push connection: the read position in the stream's
// ring (cut back to a key frame when the relay falls out of it), the
// scatter-gather writes of interleaved RTP and RTCP over TCP, the UDP port
// pairs and their sends, and the TCP send buffer sized to the bit rate.
#include <algorithm>

#include "protocol/rtsp_in_server/media/qz_rtsp_seams.h"
#include "protocol/rtsp_in_server/net/qz_socket_setup.h"
#include "protocol/rtsp_push/qz_push_connection.h"  // IWYU pragma: associated

namespace qz_rtsp_internal_server {
namespace {

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

bool PushConnection::OpenUdpPorts(std::vector<std::pair<int, int>>& ports, std::string& why) {
  asio::error_code ec;
  const asio::ip::address local = link_->socket().local_endpoint(ec).address();
  const asio::ip::address relay = link_->socket().remote_endpoint(ec).address();
  const size_t tracks = stream_->Describe().Tracks().size();
  for (size_t t = 0; t < tracks; ++t) {
    UdpPortPair pair;
    if (!OpenUdpPortPair(
            *env_.io, local, [] { return RtspRandom::Crypto().Next32(); }, pair)) {
      why = "no free UDP port pair on " + local.to_string();
      return false;
    }
    ports.emplace_back(pair.rtp_port, pair.rtp_port + 1);
    udp_rtp_.push_back(std::move(pair.rtp));
    udp_rtcp_.push_back(std::move(pair.rtcp));
    rtp_to_.emplace_back(relay, 0);
    rtcp_to_.emplace_back(relay, 0);
  }
  return true;
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
  qz_rtsp_internal_server::SizeSendBuffer(link_->socket(), stream_->byte_rate(), kSendBufferMs,
                                          send_buffer_bytes_);
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

void PushConnection::OnRelayRtcp(const uint8_t* data, size_t size) {
  RtcpReceived rtcp;
  if (!ParseRtcp(data, size, rtcp)) {
    return;  // not RTCP: nothing to learn from it
  }
  const uint32_t arrival = RtcpCompactNtp(stream_->clock().WallUs());
  std::lock_guard<std::mutex> lock(env_.counters->reception_mutex);
  for (const RtcpReportBlock& block : rtcp.blocks) {
    for (size_t t = 0; t < announced_.size(); ++t) {
      if (stream_->TrackSsrc(static_cast<int>(t)) == block.ssrc) {
        env_.counters->reception.Add(block, announced_[t].clock_rate, arrival, sent_reports_);
      }
    }
  }
}

void PushConnection::ReadUdpRtcp(size_t t) {
  auto self = shared_from_this();
  udp_rtcp_[t]->async_receive_from(asio::buffer(rtcp_buffers_[t]), rtcp_from_[t],
                                   [this, self, t](const asio::error_code& ec, size_t bytes) {
                                     if (ec || closed_) {
                                       return;
                                     }
                                     // Only the relay's own reports count: anyone may send
                                     // datagrams here.
                                     if (rtcp_from_[t].address() == rtcp_to_[t].address()) {
                                       OnRelayRtcp(rtcp_buffers_[t].data(), bytes);
                                     }
                                     ReadUdpRtcp(t);
                                   });
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
    sent_reports_.Sent(report, RtcpCompactNtp(stream_->clock().WallUs()));
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

}  // namespace qz_rtsp_internal_server
