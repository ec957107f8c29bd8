#include "protocol/rtsp_in_server/control/qz_rtsp_session.h"

namespace qz_rtsp_internal_server {

RtspSession::RtspSession(std::string id,
                         const std::shared_ptr<RtspClient>& client,
                         std::shared_ptr<RtspStream> stream,
                         long long now_ms)
    : id_(std::move(id)),
      client_(client),
      stream_(std::move(stream)),
      tracks_(static_cast<size_t>(stream_->track_count())),
      last_activity_ms_(now_ms),
      udp_heard_ms_(now_ms) {
  for (const RtpTrackInfo& info : stream_->Describe().Tracks()) {
    clock_rates_.push_back(info.clock_rate);
  }
  clock_rates_.resize(tracks_.size(), 90000);
}

void RtspSession::SetState(State state) {
  state_ = state;
  reading = state == State::kPlaying && !multicast_;
}

void RtspSession::SetupTcp(int track, int rtp_channel) {
  RtspSessionTrack& t = tracks_[static_cast<size_t>(track)];
  t = RtspSessionTrack();
  t.setup = true;
  t.tcp = true;
  t.rtp_channel = rtp_channel;
  t.rtcp_channel = rtp_channel + 1;
  if (state_ != State::kPlaying) {
    SetState(State::kReady);
  }
}

void RtspSession::SetupUdp(int track,
                           const asio::ip::udp::endpoint& rtp,
                           const asio::ip::udp::endpoint& rtcp) {
  RtspSessionTrack& t = tracks_[static_cast<size_t>(track)];
  t = RtspSessionTrack();
  t.setup = true;
  t.rtp_endpoint = rtp;
  t.rtcp_endpoint = rtcp;
  if (state_ != State::kPlaying) {
    SetState(State::kReady);
  }
}

void RtspSession::SetupMulticast(int track,
                                 const asio::ip::udp::endpoint& rtp,
                                 const asio::ip::udp::endpoint& rtcp) {
  multicast_ = true;
  SetupUdp(track, rtp, rtcp);
}

bool RtspSession::TeardownTrack(int track) {
  if (track < 0 || track >= static_cast<int>(tracks_.size()) || !tracks_[track].setup ||
      SetupTrackCount() < 2) {
    return false;
  }
  tracks_[static_cast<size_t>(track)] = RtspSessionTrack();
  return true;
}

std::vector<RtpInfoEntry> RtspSession::Play(const std::string& base_url,
                                            bool gop_cache,
                                            bool* wants_key_frame) {
  RtspStream& stream = *stream_;
  std::vector<RtpInfoEntry> info;
  *wants_key_frame = false;
  if (multicast_) {
    for (RtspSessionTrack& track : tracks_) {
      track.active = track.setup;
    }
    SetState(State::kPlaying);
    return info;
  }
  auto entry = [&](int t, uint16_t seq, long long rtp_time) {
    RtpInfoEntry e;
    e.url = base_url + "trackID=" + std::to_string(t);
    e.seq = seq;
    e.rtptime = rtp_time;
    info.push_back(std::move(e));
  };
  if (state_ == State::kPlaying) {
    // Tracks set up while playing start now, video at its next key frame;
    // the others go on as they were.
    for (int t = 0; t < stream.track_count(); ++t) {
      RtspSessionTrack& track = tracks_[static_cast<size_t>(t)];
      if (!track.setup || track.active) {
        continue;
      }
      track.active = true;
      track.wait_key = t == stream.video_track();
      if (track.wait_key) {
        *wants_key_frame = true;
        continue;  // which packet starts it is not known yet: no RTP-Info
      }
      // The track's next packet is what the client gets first; its RTP
      // time is not known before it is built.
      uint16_t seq = 0;
      uint32_t rtp_time = 0;
      if (stream.FirstPacketOf(t, read_index, seq, rtp_time)) {
        entry(t, seq, rtp_time);
      } else {
        entry(t, stream.NextSeq(t), -1);
      }
    }
    return info;
  }
  // Start at the latest key frame held (a picture at once); without one,
  // hold video back until the next key frame arrives.
  const int video = stream.video_track();
  waiting_key = false;
  read_index = stream.end_index();
  if (video >= 0 && tracks_[static_cast<size_t>(video)].setup) {
    if (stream.has_key_frame() && gop_cache) {
      read_index = stream.last_key_index();
    } else {
      waiting_key = true;
      *wants_key_frame = true;
    }
  }
  for (int t = 0; t < stream.track_count() && !waiting_key; ++t) {
    uint16_t seq = 0;
    uint32_t rtp_time = 0;
    if (tracks_[static_cast<size_t>(t)].setup &&
        stream.FirstPacketOf(t, read_index, seq, rtp_time)) {
      entry(t, seq, rtp_time);
    }
  }
  for (RtspSessionTrack& track : tracks_) {
    track.active = track.setup;
    track.wait_key = false;
  }
  SetState(State::kPlaying);
  return info;
}

void RtspSession::Pause() {
  // Packets of one record follow each other in the ring.
  const RtspStream& stream = *stream_;
  drain_end_ = read_index;
  if (!multicast_ && read_index > stream.begin_index()) {
    const RtpPacket& last = *stream.At(read_index - 1);
    while (drain_end_ < stream.end_index() && stream.At(drain_end_)->track == last.track &&
           stream.At(drain_end_)->record_ms == last.record_ms &&
           !stream.At(drain_end_)->key_frame_start) {
      ++drain_end_;
    }
  }
  SetState(State::kReady);
}

void RtspSession::End() {
  SetState(State::kInit);
}

void RtspSession::OnReportBlock(const RtcpReportBlock& block, uint32_t arrival_compact_ntp) {
  for (size_t t = 0; t < tracks_.size(); ++t) {
    if (!tracks_[t].setup || stream_->TrackSsrc(static_cast<int>(t)) != block.ssrc) {
      continue;
    }
    reception_.Add(block, clock_rates_[t], arrival_compact_ntp, sent_reports_);
    return;
  }
}

bool RtspSession::HasTcpTrack() const {
  for (const auto& t : tracks_) {
    if (t.setup && t.tcp) {
      return true;
    }
  }
  return false;
}

bool RtspSession::HasUdpTrack() const {
  if (multicast_) {
    return false;
  }
  for (const auto& t : tracks_) {
    if (t.setup && !t.tcp) {
      return true;
    }
  }
  return false;
}

int RtspSession::SetupTrackCount() const {
  int n = 0;
  for (const auto& t : tracks_) {
    n += t.setup ? 1 : 0;
  }
  return n;
}

bool RtspSession::UsesChannel(int channel) const {
  return TrackOfChannel(channel) >= 0;
}

int RtspSession::TrackOfChannel(int channel) const {
  for (size_t t = 0; t < tracks_.size(); ++t) {
    const RtspSessionTrack& track = tracks_[t];
    if (track.setup && track.tcp &&
        (track.rtp_channel == channel || track.rtcp_channel == channel)) {
      return static_cast<int>(t);
    }
  }
  return -1;
}

}  // namespace qz_rtsp_internal_server
