#include "protocol/rtsp_in_server/control/qz_rtsp_fanout.h"

#include <algorithm>

namespace qz_rtsp_internal_server {
namespace {

constexpr long long kSenderReportIntervalMs = 5000;
constexpr long long kKeyFrameRequestIntervalMs = 1000;

}  // namespace

RtspFanout::RtspFanout(RtspSessionTable& table, UdpSink& udp, RtspCounters& totals, Env env)
    : table_(table), udp_(udp), totals_(totals), env_(std::move(env)), clock_(*env_.clock) {
  udp_.set_on_result([this](void* tag, size_t size, bool sent) {
    RtspSession& session = *static_cast<RtspSession*>(tag);
    if (sent) {
      CountSent(session, size, 1);
    } else {
      CountDropped(session, RtspCounters::Drop::kSocketFull, 1);
    }
  });
}

void RtspFanout::RunGateBatch(const std::function<void()>& batch) {
  in_gate_batch_ = true;
  batch();
  in_gate_batch_ = false;
  if (kicks_.empty()) {
    return;
  }
  // Each connection once, however many of the batch's records it got.
  std::vector<std::shared_ptr<RtspClient>> kicks;
  kicks.swap(kicks_);
  std::sort(kicks.begin(), kicks.end());
  kicks.erase(std::unique(kicks.begin(), kicks.end()), kicks.end());
  kicking_ = true;
  for (auto& client : kicks) {
    client->KickWrite();
  }
  kicking_ = false;
  // The writes just made settle here, one scan per stream.
  std::vector<std::shared_ptr<RtspStream>> settle;
  settle.swap(settle_after_kicks_);
  for (auto& stream : settle) {
    stream->settle_scheduled = false;
    SettleWrites(*stream);
  }
}

void RtspFanout::OnStreamPackets(RtspStream& stream) {
  std::vector<std::shared_ptr<RtspSession>> sessions;
  for (RtspSession* session : table_.SessionsOf(stream)) {
    if (session->playing()) {
      sessions.push_back(session->shared_from_this());
    }
  }
  // The UDP clients' datagrams of this record go out together: on Linux,
  // one system call per 64 messages across all clients.
  for (auto& session : sessions) {
    PumpOne(*session);
  }
  udp_.Flush();
  SettleWrites(stream);
}

void RtspFanout::ScheduleSettle(RtspStream& stream) {
  if (stream.settle_scheduled) {
    return;
  }
  stream.settle_scheduled = true;
  if (kicking_) {
    settle_after_kicks_.push_back(stream.shared_from_this());
    return;
  }
  std::weak_ptr<RtspStream> weak = stream.shared_from_this();
  env_.post([this, weak] {
    if (auto s = weak.lock()) {
      s->settle_scheduled = false;
      SettleWrites(*s);
    }
  });
}

void RtspFanout::SettleWrites(RtspStream& stream) {
  if (!stream.has_unwritten()) {
    return;
  }
  uint64_t written_by_all = UINT64_MAX;
  for (RtspSession* session : table_.SessionsOf(stream)) {
    if (!session->playing() || session->waiting_key) {
      continue;
    }
    session->live = session->live || session->written_index >= stream.end_index();
    if (session->live) {
      written_by_all = std::min(written_by_all, session->written_index);
    }
  }
  if (written_by_all == UINT64_MAX) {
    stream.ForgetUnwritten();
    return;
  }
  stream.SettleWritten(written_by_all, stream.NowUs());
}

void RtspFanout::Resync(RtspSession& session) {
  RtspStream& stream = session.stream();
  if (session.waiting_key) {
    if (stream.has_key_frame() && stream.last_key_index() >= session.read_index) {
      session.read_index = stream.last_key_index();
      session.waiting_key = false;
    }
    return;
  }
  if (session.read_index < stream.begin_index()) {
    // What this client had not read yet is gone: it skips ahead to the
    // latest key frame rather than to the middle of a picture.
    CountDropped(session, RtspCounters::Drop::kSlowReader,
                 stream.begin_index() - session.read_index);
    if (stream.has_key_frame()) {
      session.read_index = stream.last_key_index();
    } else {
      session.read_index = stream.end_index();
      session.waiting_key =
          stream.has_video() && session.tracks()[static_cast<size_t>(stream.video_track())].setup;
    }
    if (stream.has_video()) {
      RequestKeyFrame(stream);
    }
  }
}

void RtspFanout::Pump(RtspSession& session) {
  PumpOne(session);
  udp_.Flush();
}

void RtspFanout::PumpOne(RtspSession& session) {
  if (!session.Sends()) {
    return;
  }
  Resync(session);
  if (session.waiting_key) {
    return;
  }
  SendReports(session, NowMs(), /*start=*/false);
  if (session.HasTcpTrack()) {
    if (auto client = session.client()) {
      if (in_gate_batch_) {
        kicks_.push_back(std::move(client));  // written when the batch is done
      } else {
        client->KickWrite();
      }
    }
    return;
  }
  PumpUdp(session);
}

void RtspFanout::PaceLater(RtspSession& session) {
  if (session.pace_scheduled) {
    return;
  }
  session.pace_scheduled = true;
  const int ms = static_cast<int>(session.pacer.WaitUs() / 1000) + 1;
  std::weak_ptr<RtspSession> weak = session.shared_from_this();
  env_.run_after(ms, [this, weak] {
    if (auto s = weak.lock()) {
      s->pace_scheduled = false;
      Pump(*s);
    }
  });
}

void RtspFanout::PumpUdp(RtspSession& session) {
  RtspStream& stream = session.stream();
  session.pacer.Refill(clock_.SteadyUs(), stream.byte_rate());
  const uint64_t end = session.SendEnd(stream.end_index());
  uint64_t i = session.read_index;
  for (; i < end && (session.pacer.Allows() || !session.playing()); ++i) {
    const RtpPacket& packet = *stream.At(i);
    RtspSessionTrack& track = session.tracks()[packet.track];
    if (track.Delivers(packet.key_frame_start)) {
      udp_.Add(track.rtp_endpoint, packet.UdpData(), packet.UdpSize(), &session);
      session.pacer.Spend(packet.UdpSize());
    }
  }
  session.read_index = i;
  session.written_index = i;  // the caller flushes the batch next
  if (i < end) {
    PaceLater(session);
  }
}

bool RtspFanout::GatherTcp(RtspClient& client, RtspTcpWrite& write) {
  write.buffers.clear();
  write.packets.clear();
  for (auto& entry : client.sessions()) {
    RtspSession& session = *entry.second;
    if (!session.Sends() || session.waiting_key || !session.HasTcpTrack()) {
      continue;
    }
    Resync(session);
    RtspStream& stream = session.stream();
    session.pacer.Refill(clock_.SteadyUs(), stream.byte_rate());
    const uint64_t end = session.SendEnd(stream.end_index());
    uint64_t index = session.read_index;
    size_t bytes = 0;
    while (index < end && write.buffers.size() + 2 <= RtspTcpWrite::kMaxBuffers &&
           bytes < RtspTcpWrite::kMaxBytes && (session.pacer.Allows() || !session.playing())) {
      const std::shared_ptr<RtpPacket>& packet = stream.At(index);
      RtspSessionTrack& track = session.tracks()[packet->track];
      if (track.Delivers(packet->key_frame_start)) {
        session.pacer.Spend(packet->UdpSize());
        if (!track.tcp) {
          udp_.Add(track.rtp_endpoint, packet->UdpData(), packet->UdpSize(), &session);
        } else if (packet->TcpData()[1] == track.rtp_channel) {
          write.buffers.emplace_back(packet->TcpData(), packet->TcpSize());
          write.packets.push_back(packet);
          bytes += packet->TcpSize();
        } else {
          // Another channel than the packet's own: a header of its own in
          // front of the shared RTP bytes.
          uint8_t* header = write.headers[write.packets.size()].data();
          header[0] = '$';
          header[1] = static_cast<uint8_t>(track.rtp_channel);
          header[2] = static_cast<uint8_t>(packet->UdpSize() >> 8);
          header[3] = static_cast<uint8_t>(packet->UdpSize() & 0xFF);
          write.buffers.emplace_back(header, kInterleavedHeaderSize);
          write.buffers.emplace_back(packet->UdpData(), packet->UdpSize());
          write.packets.push_back(packet);
          bytes += packet->TcpSize();
        }
      }
      ++index;
    }
    udp_.Flush();
    session.read_index = index;
    if (index < end && !session.pacer.Allows()) {
      PaceLater(session);
    }
    if (!write.buffers.empty()) {
      session.writing = true;
      session.write_end = index;
      write.session = entry.second;
      return true;
    }
  }
  return false;
}

void RtspFanout::FinishTcpWrite(RtspTcpWrite& write, bool ok, size_t bytes) {
  if (write.session) {
    RtspSession& session = *write.session;
    session.writing = false;
    if (ok) {
      CountSent(session, bytes, write.packets.size());
      ++session.stream().counters().tcp_writes;
      ++totals_.tcp_writes;
      const uint64_t before = session.written_index;
      session.written_index = session.write_end;
      RtspStream& stream = session.stream();
      session.live = session.live || session.written_index >= stream.end_index();
      if (session.live && stream.has_unwritten() && before < stream.first_unwritten_end()) {
        ScheduleSettle(stream);
      }
    }
    session.Touch(NowMs());
    write.session = nullptr;
  }
  write.packets.clear();
  write.buffers.clear();
}

void RtspFanout::StartReports(RtspSession& session) {
  SendReports(session, NowMs(), /*start=*/true);
  if (auto client = session.client()) {
    client->KickWrite();
  }
}

void RtspFanout::SendDueReports(RtspSession& session, long long now_ms) {
  if (session.multicast()) {
    return;  // its group's sender reports for it
  }
  bool any = false;
  for (size_t t = 0; t < session.tracks().size(); ++t) {
    RtspSessionTrack& track = session.tracks()[t];
    if (!track.active || now_ms - track.last_sr_ms < kSenderReportIntervalMs) {
      continue;
    }
    const std::vector<uint8_t> report = session.stream().SenderReport(static_cast<int>(t));
    if (!report.empty()) {
      track.last_sr_ms = now_ms;
      SendReport(session, t, report);
      any = true;
    }
  }
  if (auto client = session.client(); any && client) {
    client->KickWrite();
  }
}

// A track whose first packet is about to reach the client gets its sender
// report first, anchored at that packet: clients such as FFmpeg time a track
// by its own first packet until a report arrives and re-anchor on it, so a
// report that came only seconds later would make their clock jump. PLAY
// (`start`) sends every active track's; a pump only those not sent yet.
void RtspFanout::SendReports(RtspSession& session, long long now_ms, bool start) {
  if (session.multicast()) {
    return;
  }
  for (size_t t = 0; t < session.tracks().size(); ++t) {
    RtspSessionTrack& track = session.tracks()[t];
    if (!track.active || (!start && track.last_sr_ms != 0)) {
      continue;
    }
    const std::vector<uint8_t> report =
        session.stream().SenderReport(static_cast<int>(t), &session.read_index);
    if (!report.empty()) {
      track.last_sr_ms = now_ms;
      SendReport(session, t, report);
    }
  }
}

void RtspFanout::SendReport(RtspSession& session,
                            size_t track,
                            const std::vector<uint8_t>& report) {
  const RtspSessionTrack& t = session.tracks()[track];
  session.OnReportSent(report, RtcpCompactNtp(clock_.WallUs()));
  if (!t.tcp) {
    udp_.SendRtcp(t.rtcp_endpoint, report.data(), report.size(), &session);
    return;
  }
  auto client = session.client();
  if (!client) {
    return;
  }
  if (client->SendInterleaved(static_cast<uint8_t>(t.rtcp_channel), report)) {
    CountSent(session, report.size() + kInterleavedHeaderSize, 1);
  } else {
    CountDropped(session, RtspCounters::Drop::kControlBacklog, 1);
  }
}

void RtspFanout::RequestKeyFrame(RtspStream& stream) {
  const long long now = NowMs();
  if (!env_.on_key_frame_request) {
    return;
  }
  const long long wait = stream.last_key_request_ms + kKeyFrameRequestIntervalMs - now;
  if (wait > 0) {
    // Too soon after the last one: asked for once more when the interval
    // ends (unless asked for by then), so that a viewer that joins just
    // after another does not wait for the encoder's own next key frame, a
    // whole GOP away (seconds with some encoders).
    if (!stream.key_request_deferred) {
      stream.key_request_deferred = true;
      std::weak_ptr<RtspStream> weak = stream.shared_from_this();
      env_.run_after(static_cast<int>(wait), [this, weak] {
        if (auto s = weak.lock()) {
          s->key_request_deferred = false;
          if (NowMs() - s->last_key_request_ms >= kKeyFrameRequestIntervalMs) {
            RequestKeyFrame(*s);
          }
        }
      });
    }
    return;
  }
  stream.last_key_request_ms = now;
  ++stream.counters().key_frame_requests;
  ++totals_.key_frame_requests;
  // The application is called in a turn of the event loop of its own, with
  // nothing of the server's on the stack: it may call Stop() from there.
  env_.post([callback = env_.on_key_frame_request, name = stream.name()] { callback(name); });
}

void RtspFanout::CountSent(RtspSession& session, size_t bytes, size_t packets) {
  session.bytes_sent += bytes;
  session.packets_sent += packets;
  session.stream().counters().Sent(bytes, packets);
  totals_.Sent(bytes, packets);
}

void RtspFanout::CountDropped(RtspSession& session,
                              RtspCounters::Drop reason,
                              unsigned long long packets) {
  session.packets_dropped += packets;
  session.stream().counters().Dropped(reason, packets);
  totals_.Dropped(reason, packets);
}

}  // namespace qz_rtsp_internal_server
