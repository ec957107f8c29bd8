// One published stream on one server: receives the records of its pipe,
// packetizes each once per track into RTP packets that every client of the
// stream shares, and keeps them in a ring from the latest video key frame on
// (so that a client that starts playing gets a picture at once). Clients keep
// only their read position. Everything but the pipe consumers runs on the
// server's network thread.
#ifndef PROTOCOL_RTSP_IN_SERVER_MEDIA_QZ_RTSP_STREAM_H_
#define PROTOCOL_RTSP_IN_SERVER_MEDIA_QZ_RTSP_STREAM_H_

#include <atomic>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "protocol/rtsp_in_server/media/qz_delay_histogram.h"
#include "protocol/rtsp_in_server/media/qz_rtsp_io_gate.h"
#include "protocol/rtsp_in_server/media/qz_rtsp_seams.h"
#include "protocol/rtsp_in_server/qz_rtsp_packet_pipe.h"
#include "protocol/rtsp_in_server/qz_rtsp_server.h"
#include "protocol/rtsp_in_server/rtp/qz_rtp_packet.h"
#include "protocol/rtsp_in_server/rtp/qz_rtp_track_writer.h"
#include "protocol/rtsp_in_server/wire/qz_sdp.h"

namespace qz_rtsp_internal_server {

// A client's position in a stream's ring (indexes grow forever). While
// `reading`, the stream keeps what the reader has not read yet, within its
// byte and age limits.
struct RtspRingReader {
  uint64_t read_index = 0;
  bool reading = false;
  // A viewer's session; false for the server's own reader that sends a
  // multicast group its packets, which the statistics do not count.
  bool viewer = true;
};

// Delivery counters: written on the network thread, read from any.
struct RtspCounters {
  enum class Drop { kSlowReader, kSocketFull, kControlBacklog };

  void Sent(size_t bytes, size_t packets) {
    bytes_sent += bytes;
    packets_sent += packets;
  }
  void Dropped(Drop reason, unsigned long long packets) {
    (reason == Drop::kSlowReader   ? drop_slow
     : reason == Drop::kSocketFull ? drop_socket
                                   : drop_control) += packets;
  }
  QZRtspDropCounts Drops() const {
    QZRtspDropCounts d;
    d.slow_reader = drop_slow.load();
    d.socket_full = drop_socket.load();
    d.control_backlog = drop_control.load();
    return d;
  }

  std::atomic<unsigned long long> bytes_sent{0};
  std::atomic<unsigned long long> packets_sent{0};
  std::atomic<unsigned long long> tcp_writes{0};
  std::atomic<unsigned long long> drop_slow{0};
  std::atomic<unsigned long long> drop_socket{0};
  std::atomic<unsigned long long> drop_control{0};
  std::atomic<unsigned long long> key_frame_requests{0};
};

struct RtspStreamLimits {
  size_t max_payload = 1400;
  size_t max_ring_bytes = 8 * 1024 * 1024;
  long long max_ring_age_ms = 4000;
  // Hold the latest key frame's GOP for viewers that join.
  bool keep_gop = true;
};

class RtspStream : public std::enable_shared_from_this<RtspStream> {
 public:
  // `on_packets` runs on the network thread after new packets were added.
  RtspStream(std::shared_ptr<QZRtspPacketPiple> piple,
             std::shared_ptr<RtspIoGate> gate,
             RtspStreamLimits limits,
             RtspRandom& random,
             const RtspClock& clock = RtspClock::System());
  ~RtspStream();

  // Attaches the stream's consumers to its pipe / detaches them.
  void Attach();
  void Detach();

  const std::shared_ptr<QZRtspPacketPiple>& piple() const { return piple_; }
  std::string name() const { return name_; }
  StreamDescription Describe() const { return StreamDescription::FromPipe(*piple_); }
  int track_count() const { return static_cast<int>(track_is_video_.size()); }
  uint32_t TrackSsrc(int track) const { return ssrcs_[track]; }

  // The ring: indexes grow forever; [begin_index(), end_index()) is held.
  uint64_t begin_index() const { return base_index_; }
  uint64_t end_index() const { return base_index_ + ring_.size(); }
  const std::shared_ptr<RtpPacket>& At(uint64_t index) const { return ring_[index - base_index_]; }
  bool has_key_frame() const { return has_key_; }
  uint64_t last_key_index() const { return last_key_index_; }
  bool has_video() const { return video_track_ >= 0; }
  int video_track() const { return video_track_; }  // -1: none

  // Sequence number and RTP time of the first packet of `track` at or after
  // `from`; false when the ring holds none yet.
  bool FirstPacketOf(int track, uint64_t from, uint16_t& seq, uint32_t& rtp_time) const;
  // The sequence number the track's next packet will carry.
  uint16_t NextSeq(int track) const {
    return writers_[track] ? writers_[track]->next_seq() : first_seqs_[track];
  }

  // RTCP SR of `track` for the newest packet sent on it, or, when `from` is
  // given, for the first packet of the track at or after ring index `from`
  // (what a client that starts there gets first: anchoring it there keeps a
  // client's clock from jumping when its first cached packets are older than
  // the live edge). Empty before any packet.
  std::vector<uint8_t> SenderReport(int track, const uint64_t* from = nullptr) const;

  // Network thread: the clients that read from this stream.
  void AddReader(RtspRingReader* reader) {
    if (readers_.insert(reader).second && reader->viewer) {
      ++session_count_;
    }
  }
  void RemoveReader(RtspRingReader* reader) {
    if (readers_.erase(reader) != 0 && reader->viewer) {
      --session_count_;
    }
  }

  void set_on_packets(std::function<void(RtspStream&)> f) { on_packets_ = std::move(f); }
  // Runs on the network thread when the latest GOP passed the hard cap
  // (twice the byte bound) and was dropped: a new key frame is needed.
  void set_on_cache_lost(std::function<void(RtspStream&)> f) { on_cache_lost_ = std::move(f); }
  static constexpr size_t kHardCapFactor = 2;

  unsigned long long packets_built() const { return packets_built_.load(); }
  // Network thread: bytes a second the stream sent into its ring over the
  // last four full seconds, so that a key frame does not swing it (0 before
  // one has passed).
  size_t byte_rate() const { return byte_rate_; }
  RtspCounters& counters() { return counters_; }
  // Network thread: how many of its sessions play (refreshed by the server).
  void set_playing_count(int n) { playing_count_ = n; }
  // Any thread.
  QZRtspStreamStats Stats() const;
  // Rate limit of key-frame requests: network thread only.
  long long last_key_request_ms = -1000000;
  bool key_request_deferred = false;  // one waits for the interval's end

  // Network thread: records wait here from their post into the pipe until
  // every client that keeps up has written them; the time they waited goes
  // into the stream's write-delay statistics.
  long long NowUs() const { return clock_.SteadyUs(); }
  const RtspClock& clock() const { return clock_; }
  bool has_unwritten() const { return !unwritten_.empty(); }
  uint64_t first_unwritten_end() const { return unwritten_.front().end_index; }
  // Every client has written the packets before ring index `written`.
  void SettleWritten(uint64_t written, long long now_us);
  // No client keeps up: what waits is not counted.
  void ForgetUnwritten() { unwritten_.clear(); }
  static constexpr size_t kMaxUnwritten = 4096;
  bool settle_scheduled = false;  // see QZRtspServer::Impl::ScheduleSettle

  // Records the gate refused because the network thread stalled (any thread).
  unsigned long long gate_drops() const { return gate_drops_.load(); }
  // Audio records not sent because their format forbids splitting them and
  // they exceed the payload size (Speex; any thread).
  unsigned long long audio_records_refused() const { return audio_refused_.load(); }

  // Network thread: handle one record (exposed for tests). `posted_us`, when
  // set, is when the record was posted into the pipe (NowUs()); `pushed_us`
  // when its frame was pushed into the publisher (same clock, 0: unknown).
  void set_posted_us(long long posted_us, long long pushed_us = 0) {
    posted_us_ = posted_us;
    pushed_us_ = pushed_us;
  }
  void OnVideo(const std::shared_ptr<QZRtspVideoPacket>& record);
  void OnAudio(const std::shared_ptr<QZRtspAudioPacket>& record);

 private:
  template <class Record, void (RtspStream::*Handle)(const std::shared_ptr<Record>&)>
  class Consumer;
  using VideoConsumer = Consumer<QZRtspVideoPacket, &RtspStream::OnVideo>;
  using AudioConsumer = Consumer<QZRtspAudioPacket, &RtspStream::OnAudio>;

  // Video frames were lost before they reached the stream: a key frame is
  // needed (asked for like a lost cache).
  void LostFrames();
  void Append(std::vector<std::shared_ptr<RtpPacket>>& packets);
  void Evict();
  void PopFront();
  RtpTrackWriter* Writer(int track);
  // The writer of `track` for a record stamped `record_ms` (null: no such
  // track). The first record of either track sets the wall-clock base.
  RtpTrackWriter* BeginRecord(int track, long long record_ms);
  // Packetizes one record into the ring.
  void Emit(RtpTrackWriter& writer,
            RtpPayloadPacketizer& packetizer,
            uint32_t rtp_time,
            long long record_ms,
            bool is_video,
            bool key_frame);
  size_t AacFrameSamples(int clock_rate);

  std::shared_ptr<QZRtspPacketPiple> piple_;
  std::shared_ptr<RtspIoGate> gate_;
  RtspStreamLimits limits_;
  const RtspClock& clock_;
  std::string name_;
  std::shared_ptr<VideoConsumer> video_consumer_;
  std::shared_ptr<AudioConsumer> audio_consumer_;

  int video_track_ = -1;
  int audio_track_ = -1;
  std::vector<bool> track_is_video_;
  std::vector<uint32_t> ssrcs_;
  std::vector<uint16_t> first_seqs_;
  std::vector<uint32_t> time_offsets_;
  std::vector<std::unique_ptr<RtpTrackWriter>> writers_;
  size_t last_audio_samples_ = 0;  // of the previous audio frame; 0: unknown
  // The AAC frame length as of the pipe's description version
  // `aac_config_version_` (read again when the description changes).
  bool has_aac_config_ = false;
  QZ_UINT64 aac_config_version_ = 0;
  size_t aac_frame_samples_ = 0;

  std::deque<std::shared_ptr<RtpPacket>> ring_;
  uint64_t base_index_ = 0;
  size_t ring_bytes_ = 0;
  bool has_key_ = false;
  uint64_t last_key_index_ = 0;

  // Wall clock of the first record, for RTCP's NTP field.
  bool has_time_base_ = false;
  unsigned long long wall_base_us_ = 0;
  long long record_base_ms_ = 0;

  struct Unwritten {
    uint64_t end_index;  // one past the record's last packet
    long long posted_us;
    long long pushed_us;  // 0: unknown
  };
  std::deque<Unwritten> unwritten_;
  static constexpr size_t kRateWindows = 4;
  long long rate_window_start_ms_ = -1;
  size_t rate_window_bytes_ = 0;
  // The last full windows: bytes and milliseconds each, oldest first.
  std::deque<std::pair<size_t, long long>> rate_windows_;
  size_t byte_rate_ = 0;
  long long posted_us_ = 0;  // of the record being handled
  long long pushed_us_ = 0;
  DelayHistogram write_delay_;
  DelayHistogram push_delay_;

  std::set<RtspRingReader*> readers_;
  std::function<void(RtspStream&)> on_packets_;
  std::function<void(RtspStream&)> on_cache_lost_;
  std::atomic<unsigned long long> packets_built_{0};
  std::atomic<unsigned long long> gate_drops_{0};
  std::atomic<unsigned long long> audio_refused_{0};
  std::atomic<size_t> cache_bytes_{0};  // mirrors ring_bytes_ for Stats()
  std::atomic<int> session_count_{0};
  std::atomic<int> playing_count_{0};
  RtspCounters counters_;
};

}  // namespace qz_rtsp_internal_server

#endif  // PROTOCOL_RTSP_IN_SERVER_MEDIA_QZ_RTSP_STREAM_H_
