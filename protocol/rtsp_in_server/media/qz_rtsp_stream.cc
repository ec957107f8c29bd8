#include "protocol/rtsp_in_server/media/qz_rtsp_stream.h"

#include <chrono>

#include "protocol/rtsp_in_server/rtp/qz_rtcp.h"
#include "protocol/rtsp_in_server/rtp/qz_rtp_aac.h"
#include "protocol/rtsp_in_server/rtp/qz_rtp_g711.h"
#include "protocol/rtsp_in_server/rtp/qz_rtp_h264.h"
#include "protocol/rtsp_in_server/rtp/qz_rtp_h265.h"
#include "protocol/rtsp_in_server/rtp/qz_rtp_speex.h"
#include "topcommon/qz_aac_audio_config.h"

namespace qz_rtsp_internal_server {

// The consumers run on the publisher's send thread: they only hand the
// record to the network thread, never touching the stream there.
template <class Record, void (RtspStream::*Handle)(const std::shared_ptr<Record>&)>
class RtspStream::Consumer : public QZRtspPacketSinkerImpl<Record> {
 public:
  Consumer(std::weak_ptr<RtspStream> stream,
           std::shared_ptr<RtspIoGate> gate,
           const RtspClock& clock)
      : stream_(std::move(stream)), gate_(std::move(gate)), clock_(clock) {}
  void OnRtspPacket(const std::shared_ptr<Record>& packet) override {
    std::weak_ptr<RtspStream> stream = stream_;
    if (resume_at_key_ && !IsKeyFrame(*packet)) {
      // What follows a lost frame cannot be decoded until the next key frame.
      if (auto s = stream.lock()) {
        ++s->gate_drops_;
      }
      return;
    }
    const long long posted_us = clock_.SteadyUs();
    const bool posted = gate_->Post([stream, packet, posted_us] {
      if (auto s = stream.lock()) {
        s->set_posted_us(posted_us, packet->pushed_us_);
        ((*s).*Handle)(packet);
      }
    });
    if (posted) {
      resume_at_key_ = false;
      return;
    }
    // The network thread is stalled and the gate full: this frame is lost.
    // Video resumes at a key frame, and one is asked for at once (through
    // the full gate: one small item per loss).
    if (auto s = stream.lock()) {
      ++s->gate_drops_;
    }
    if (!resume_at_key_ && IsVideo(*packet)) {
      resume_at_key_ = true;
      gate_->Post(
          [stream] {
            if (auto s = stream.lock()) {
              s->LostFrames();
            }
          },
          false);
    }
  }

 private:
  std::weak_ptr<RtspStream> stream_;
  static bool IsKeyFrame(const QZRtspVideoPacket& record) { return record.is_key_frame_; }
  static bool IsKeyFrame(const QZRtspAudioPacket&) { return true; }
  static bool IsVideo(const QZRtspVideoPacket&) { return true; }
  static bool IsVideo(const QZRtspAudioPacket&) { return false; }

  std::shared_ptr<RtspIoGate> gate_;
  const RtspClock& clock_;
  bool resume_at_key_ = false;  // the publisher's send thread only
};

void RtspStream::LostFrames() {
  if (on_cache_lost_) {
    on_cache_lost_(*this);
  }
}

RtspStream::RtspStream(std::shared_ptr<QZRtspPacketPiple> piple,
                       std::shared_ptr<RtspIoGate> gate,
                       RtspStreamLimits limits,
                       RtspRandom& random,
                       const RtspClock& clock)
    : piple_(std::move(piple)), gate_(std::move(gate)), limits_(limits), clock_(clock) {
  name_ = piple_->StreamName();
  // Track layout as the SDP gives it: video first, then audio.
  const std::vector<RtpTrackInfo> tracks = Describe().Tracks();
  for (size_t i = 0; i < tracks.size(); ++i) {
    (tracks[i].is_video ? video_track_ : audio_track_) = static_cast<int>(i);
    track_is_video_.push_back(tracks[i].is_video);
  }
  for (size_t i = 0; i < track_is_video_.size(); ++i) {
    ssrcs_.push_back(random.Next32());
    first_seqs_.push_back(static_cast<uint16_t>(random.Next32()));
    time_offsets_.push_back(random.Next32());
  }
  writers_.resize(track_is_video_.size());
}

RtspStream::~RtspStream() = default;

void RtspStream::SettleWritten(uint64_t written, long long now_us) {
  while (!unwritten_.empty() && unwritten_.front().end_index <= written) {
    write_delay_.Add(now_us - unwritten_.front().posted_us);
    if (unwritten_.front().pushed_us > 0) {
      push_delay_.Add(now_us - unwritten_.front().pushed_us);
    }
    unwritten_.pop_front();
  }
}

void RtspStream::Attach() {
  video_consumer_ = std::make_shared<VideoConsumer>(shared_from_this(), gate_, clock_);
  audio_consumer_ = std::make_shared<AudioConsumer>(shared_from_this(), gate_, clock_);
  std::shared_ptr<QZRtspVideoSinker> video = video_consumer_;
  std::shared_ptr<QZRtspAudioSinker> audio = audio_consumer_;
  piple_->AddVideoSinker(video);
  piple_->AddAudioSinker(audio);
}

void RtspStream::Detach() {
  std::shared_ptr<QZRtspVideoSinker> video = video_consumer_;
  std::shared_ptr<QZRtspAudioSinker> audio = audio_consumer_;
  if (video) {
    piple_->RemoveVideoSinker(video);
  }
  if (audio) {
    piple_->RemoveAudioSinker(audio);
  }
}

RtpTrackWriter* RtspStream::Writer(int track) {
  if (track < 0 || track >= static_cast<int>(writers_.size())) {
    return nullptr;
  }
  if (!writers_[track]) {
    int payload_type = 96;
    int clock_rate = 90000;
    for (const RtpTrackInfo& info : Describe().Tracks()) {
      if (info.is_video == track_is_video_[track]) {
        payload_type = info.payload_type;
        clock_rate = info.clock_rate;
      }
    }
    writers_[track].reset(new RtpTrackWriter(track, payload_type, clock_rate, ssrcs_[track],
                                             first_seqs_[track], time_offsets_[track],
                                             static_cast<uint8_t>(track * 2)));
  }
  return writers_[track].get();
}

RtpTrackWriter* RtspStream::BeginRecord(int track, long long record_ms) {
  RtpTrackWriter* writer = Writer(track);
  if (writer != nullptr && !has_time_base_) {
    has_time_base_ = true;
    wall_base_us_ = clock_.WallUs();
    record_base_ms_ = record_ms;
  }
  return writer;
}

void RtspStream::Emit(RtpTrackWriter& writer,
                      RtpPayloadPacketizer& packetizer,
                      uint32_t rtp_time,
                      long long record_ms,
                      bool is_video,
                      bool key_frame) {
  std::vector<std::shared_ptr<RtpPacket>> packets;
  writer.Packetize(packetizer, limits_.max_payload, rtp_time, record_ms, clock_.SteadyMs(),
                   is_video, key_frame, packets);
  Append(packets);
}

void RtspStream::OnVideo(const std::shared_ptr<QZRtspVideoPacket>& record) {
  if (!record) {
    return;
  }
  const long long record_ms = static_cast<long long>(record->time_stamp_);
  RtpTrackWriter* writer = BeginRecord(video_track_, record_ms);
  if (writer == nullptr) {
    return;
  }
  const uint32_t rtp_time = writer->RtpTime(record_ms, 0);
  if (record->IsH265()) {
    H265Packetizer packetizer(record->nal_units_, limits_.max_payload);
    Emit(*writer, packetizer, rtp_time, record_ms, true, record->is_key_frame_);
  } else {
    H264Packetizer packetizer(record->nal_units_, limits_.max_payload);
    Emit(*writer, packetizer, rtp_time, record_ms, true, record->is_key_frame_);
  }
}

void RtspStream::OnAudio(const std::shared_ptr<QZRtspAudioPacket>& record) {
  if (!record || !record->data_) {
    return;
  }
  const long long record_ms = static_cast<long long>(record->time_stamp_);
  RtpTrackWriter* writer = BeginRecord(audio_track_, record_ms);
  if (writer == nullptr) {
    return;
  }
  const uint32_t rtp_time = writer->RtpTime(record_ms, last_audio_samples_);
  // The samples of this record, so that the next one continues from it (0:
  // unknown, the next one is stamped from its record time).
  last_audio_samples_ = 0;
  switch (record->codec_id_) {
    case QZ_MEDIA_CODEC_ID_AAC: {
      last_audio_samples_ = AacFrameSamples(writer->clock_rate());
      AacPacketizer packetizer(record->data_, limits_.max_payload);
      Emit(*writer, packetizer, rtp_time, record_ms, false, false);
      break;
    }
    case QZ_MEDIA_CODEC_ID_PCMA:
    case QZ_MEDIA_CODEC_ID_PCMU: {
      const size_t channels = record->channels_ > 0 ? static_cast<size_t>(record->channels_) : 1;
      last_audio_samples_ = record->data_->size_ / channels;
      G711Packetizer packetizer(record->data_, limits_.max_payload, channels);
      Emit(*writer, packetizer, rtp_time, record_ms, false, false);
      break;
    }
    case QZ_MEDIA_CODEC_ID_SPEEX_WB: {
      // A record holds as many frames as the encoder put in it: stamped from
      // its record time.
      SpeexPacketizer packetizer(record->data_, limits_.max_payload);
      Emit(*writer, packetizer, rtp_time, record_ms, false, false);
      if (packetizer.refused()) {
        ++audio_refused_;
      }
      break;
    }
    default:
      break;  // no payload format, and no track in the SDP either
  }
}

// Samples in one AAC frame at the track's RTP clock, from the pipe's current
// AudioSpecificConfig (a new config takes effect with the next frame). 0
// when the config is missing, gives no frame length, or runs at another
// frequency than the clock the track was set up with: those frames are
// stamped from their record times.
size_t RtspStream::AacFrameSamples(int clock_rate) {
  const QZ_UINT64 version = piple_->ConfigVersion();
  if (has_aac_config_ && version == aac_config_version_) {
    return aac_frame_samples_;
  }
  has_aac_config_ = true;
  aac_config_version_ = version;
  aac_frame_samples_ = 0;
  std::vector<unsigned char> config;
  piple_->GetAudioSpecificConfig(config);
  const int size = static_cast<int>(config.size());
  int obj_type = 0;
  int sample_rate = 0;
  int channels = 0;
  if (qz_top_common::AACAudioConfig::Parser(config.data(), size, obj_type, sample_rate, channels) &&
      sample_rate == clock_rate) {
    aac_frame_samples_ =
        static_cast<size_t>(qz_top_common::AACAudioConfig::FrameLength(config.data(), size));
  }
  return aac_frame_samples_;
}

void RtspStream::Append(std::vector<std::shared_ptr<RtpPacket>>& packets) {
  if (packets.empty()) {
    return;
  }
  const long long now_ms = clock_.SteadyMs();
  if (rate_window_start_ms_ < 0) {
    rate_window_start_ms_ = now_ms;
  } else if (now_ms - rate_window_start_ms_ >= 1000) {
    rate_windows_.emplace_back(rate_window_bytes_, now_ms - rate_window_start_ms_);
    if (rate_windows_.size() > kRateWindows) {
      rate_windows_.pop_front();
    }
    size_t bytes = 0;
    long long ms = 0;
    for (const auto& window : rate_windows_) {
      bytes += window.first;
      ms += window.second;
    }
    byte_rate_ = bytes * 1000 / static_cast<size_t>(ms);
    rate_window_start_ms_ = now_ms;
    rate_window_bytes_ = 0;
  }
  for (auto& packet : packets) {
    rate_window_bytes_ += packet->size;
    if (packet->key_frame_start) {
      has_key_ = true;
      last_key_index_ = end_index();
    }
    ring_bytes_ += packet->size;
    ring_.push_back(std::move(packet));
    ++packets_built_;
  }
  if (posted_us_ > 0) {
    if (unwritten_.size() == kMaxUnwritten) {
      unwritten_.pop_front();  // a client stuck this long is no longer "keeping up"
    }
    unwritten_.push_back(Unwritten{end_index(), posted_us_, pushed_us_});
    posted_us_ = 0;
    pushed_us_ = 0;
  }
  Evict();
  if (on_packets_) {
    on_packets_(*this);
  }
}

// Keeps the ring from the latest key frame on, plus what playing clients have
// not read yet, within the byte and age bounds. Older packets go first, so
// the cache for new viewers always starts at a key frame; a client whose
// position falls out of the ring is moved on by the server (to the latest key
// frame). The latest GOP itself is never evicted for age, and for size only
// past a hard cap (an encoder that stopped sending key frames): then the
// cache is dropped whole and a new key frame is asked for.
void RtspStream::Evict() {
  const bool keep_gop = has_key_ && limits_.keep_gop;
  uint64_t keep_from = keep_gop ? last_key_index_ : end_index();
  for (const RtspRingReader* reader : readers_) {
    // Sessions waiting for a key frame hold what arrives after their join
    // point, so that the key frame is still there when they look for it.
    if (reader->reading && reader->read_index < keep_from) {
      keep_from = reader->read_index;
    }
  }
  const long long now = clock_.SteadyMs();
  while (!ring_.empty()) {
    const bool in_cache = keep_gop && base_index_ >= last_key_index_;
    if (in_cache) {
      break;
    }
    const RtpPacket& front = *ring_.front();
    const bool needed = base_index_ >= keep_from;
    const bool over_bytes = ring_bytes_ > limits_.max_ring_bytes;
    const bool too_old = now - front.arrival_ms > limits_.max_ring_age_ms;
    if (needed && !over_bytes && !too_old) {
      break;
    }
    PopFront();
  }
  if (has_key_ && last_key_index_ < base_index_) {
    has_key_ = false;  // without the cache the key frame goes like any packet
  }
  if (ring_bytes_ > limits_.max_ring_bytes * kHardCapFactor) {
    while (!ring_.empty()) {
      PopFront();
    }
    has_key_ = false;
    if (on_cache_lost_) {
      on_cache_lost_(*this);
    }
  }
  cache_bytes_ = ring_bytes_;
}

void RtspStream::PopFront() {
  ring_bytes_ -= ring_.front()->size;
  ring_.pop_front();
  ++base_index_;
}

QZRtspStreamStats RtspStream::Stats() const {
  QZRtspStreamStats stats;
  stats.name = name_;
  stats.sessions = session_count_.load();
  stats.playing = playing_count_.load();
  stats.bytes_sent = counters_.bytes_sent.load();
  stats.packets_sent = counters_.packets_sent.load();
  stats.tcp_writes = counters_.tcp_writes.load();
  stats.dropped = counters_.Drops();
  stats.frames_dropped_stalled = gate_drops_.load();
  stats.key_frame_requests = counters_.key_frame_requests.load();
  stats.rtp_packets_built = packets_built_.load();
  stats.cache_bytes = cache_bytes_.load();
  stats.write_delay = write_delay_.Stats();
  stats.push_delay = push_delay_.Stats();
  return stats;
}

bool RtspStream::FirstPacketOf(int track, uint64_t from, uint16_t& seq, uint32_t& rtp_time) const {
  for (uint64_t i = std::max(from, begin_index()); i < end_index(); ++i) {
    const RtpPacket& p = *At(i);
    if (p.track == track) {
      seq = p.seq;
      rtp_time = p.rtp_time;
      return true;
    }
  }
  return false;
}

std::vector<uint8_t> RtspStream::SenderReport(int track, const uint64_t* from) const {
  if (track < 0 || track >= static_cast<int>(writers_.size()) || !writers_[track] ||
      !writers_[track]->has_sent() || !has_time_base_) {
    return {};
  }
  const RtpTrackWriter& w = *writers_[track];
  uint32_t rtp_time = w.last_rtp_time();
  long long record_ms = w.last_record_ms();
  if (from != nullptr) {
    for (uint64_t i = std::max(*from, begin_index()); i < end_index(); ++i) {
      const RtpPacket& p = *At(i);
      if (p.track == track) {
        rtp_time = p.record_rtp_time;  // the time record_ms maps to
        record_ms = p.record_ms;
        break;
      }
    }
  }
  // Both tracks map record time to wall clock through the same base, which
  // is what lets a client line audio up with video.
  const unsigned long long ntp_us =
      wall_base_us_ + static_cast<unsigned long long>(record_ms - record_base_ms_) * 1000ULL;
  return BuildRtcpSenderReport(w.ssrc(), ntp_us, rtp_time, w.packet_count(), w.octet_count(),
                               "qz-rtsp@" + name_);
}

}  // namespace qz_rtsp_internal_server
