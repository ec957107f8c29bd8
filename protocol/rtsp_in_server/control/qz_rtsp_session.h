// One RTSP session: the tracks a client set up, how each is delivered, its
// state (RFC 2326 appendix A: Init, Ready, Playing), the client's read
// position in its stream's shared packet ring, and what the client's
// receiver reports say. The session decides what SETUP, PLAY, PAUSE and
// TEARDOWN do to it; the fan-out moves its read position as it sends.
// Network thread only.
#ifndef PROTOCOL_RTSP_IN_SERVER_CONTROL_QZ_RTSP_SESSION_H_
#define PROTOCOL_RTSP_IN_SERVER_CONTROL_QZ_RTSP_SESSION_H_

#include <algorithm>
#include <asio.hpp>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "protocol/rtsp_in_server/control/qz_rtsp_client.h"
#include "protocol/rtsp_in_server/media/qz_rtsp_pacer.h"
#include "protocol/rtsp_in_server/media/qz_rtsp_stream.h"
#include "protocol/rtsp_in_server/rtp/qz_rtcp.h"
#include "protocol/rtsp_in_server/wire/qz_rtsp_headers.h"

namespace qz_rtsp_internal_server {

struct RtspSessionTrack {
  bool setup = false;
  // Media flows: set up and a PLAY came since (a track set up while the
  // session plays waits for the next PLAY).
  bool active = false;
  // Video made active while the session plays starts at the next key frame.
  bool wait_key = false;
  bool tcp = false;
  int rtp_channel = -1;  // TCP: the interleaved channels on this connection
  int rtcp_channel = -1;
  asio::ip::udp::endpoint rtp_endpoint;  // UDP: the client's ports
  asio::ip::udp::endpoint rtcp_endpoint;
  long long last_sr_ms = 0;  // 0: no sender report sent since PLAY

  // Whether a packet of this track goes to the client (a waiting video
  // track starts at a key frame).
  bool Delivers(bool key_frame_start) {
    if (!active) {
      return false;
    }
    if (wait_key) {
      if (!key_frame_start) {
        return false;
      }
      wait_key = false;
    }
    return true;
  }
};

class RtspSession : public RtspRingReader, public std::enable_shared_from_this<RtspSession> {
 public:
  enum class State { kInit, kReady, kPlaying };

  RtspSession(std::string id,
              const std::shared_ptr<RtspClient>& client,
              std::shared_ptr<RtspStream> stream,
              long long now_ms);

  const std::string& id() const { return id_; }
  State state() const { return state_; }
  bool playing() const { return state_ == State::kPlaying; }
  RtspStream& stream() const { return *stream_; }
  const std::shared_ptr<RtspStream>& shared_stream() const { return stream_; }
  std::shared_ptr<RtspClient> client() const { return client_.lock(); }
  std::vector<RtspSessionTrack>& tracks() { return tracks_; }
  const std::vector<RtspSessionTrack>& tracks() const { return tracks_; }

  // SETUP of `track`, over TCP on the channel pair from `rtp_channel` or
  // over UDP to the client's ports. Init becomes Ready; a playing session
  // goes on playing and the track waits for the next PLAY.
  void SetupTcp(int track, int rtp_channel);
  void SetupUdp(int track, const asio::ip::udp::endpoint& rtp, const asio::ip::udp::endpoint& rtcp);
  // SETUP of `track` as a member of its stream's multicast group (`rtp`
  // and `rtcp`: the group's ports). A member's media and reports are its
  // group's (see RtspMulticastGroups): it keeps no read position and sends
  // nothing itself. A session is a member for its whole life, or never.
  void SetupMulticast(int track,
                      const asio::ip::udp::endpoint& rtp,
                      const asio::ip::udp::endpoint& rtcp);
  bool multicast() const { return multicast_; }
  // TEARDOWN of one track: false when it is the session's last set-up track
  // (the whole session ends instead).
  bool TeardownTrack(int track);

  // PLAY. From Ready: reading starts at the latest key frame the stream
  // holds (with `gop_cache`), else video is held back until the next one,
  // and every set-up track becomes active. While playing: tracks set up
  // since become active, video at its next key frame, the others go on.
  // Returns the RTP-Info entries of the tracks whose first packet is known
  // (`base_url` + "trackID=N"); `*wants_key_frame` when a key frame must be
  // asked for. A multicast member only becomes playing, its set-up tracks
  // active: where it starts is its group's.
  std::vector<RtpInfoEntry> Play(const std::string& base_url,
                                 bool gop_cache,
                                 bool* wants_key_frame);
  // PAUSE. The record being sent (a picture, an audio frame) is finished
  // first: a client left with part of a picture would decode it broken
  // after the next PLAY.
  void Pause();
  // Whether the fan-out sends to this session: it plays, or it finishes its
  // record after a PAUSE (at once, unpaced); and up to which ring index (of
  // `stream_end`).
  bool Sends() const { return !multicast_ && (playing() || read_index < drain_end_); }
  uint64_t SendEnd(uint64_t stream_end) const {
    return playing() ? stream_end : std::min(stream_end, drain_end_);
  }
  // The session is over (TEARDOWN, expiry, BYE, its connection closed).
  void End();

  void Touch(long long now_ms) { last_activity_ms_ = now_ms; }
  long long last_activity_ms() const { return last_activity_ms_; }
  // Something arrived from the client's own UDP ports: it receives what is
  // sent there. Until it does, the session's UDP media has a deadline that
  // nothing else moves (see QZRtspServerOptions::udp_silence_timeout_s);
  // once it did, each PLAY starts the silence clock afresh (a paused client
  // may fall silent).
  void HeardOverUdp(long long now_ms) {
    udp_heard_ms_ = now_ms;
    udp_answered_ = true;
  }
  void Resumed(long long now_ms) {
    if (udp_answered_) {
      udp_heard_ms_ = now_ms;
    }
  }
  bool UdpSilent(long long now_ms, long long timeout_ms) const {
    return playing() && HasUdpTrack() && now_ms - udp_heard_ms_ > timeout_ms;
  }

  // A report block of the client's RTCP about one of our tracks, arrived
  // at `arrival_compact_ntp` (see RtcpCompactNtp).
  void OnReportBlock(const RtcpReportBlock& block, uint32_t arrival_compact_ntp);
  // A sender report went to the client at `now_compact_ntp`.
  void OnReportSent(const std::vector<uint8_t>& report, uint32_t now_compact_ntp) {
    sent_reports_.Sent(report, now_compact_ntp);
  }
  // What the client's receiver reports (RFC 3550 6.4.2) say about the
  // session: the latest report of any of its tracks.
  const RtcpReception& reception() const { return reception_; }

  bool HasTcpTrack() const;
  // A set-up track goes over unicast UDP (a multicast member's go to its
  // group: the server chose where, and nothing needs to answer from there).
  bool HasUdpTrack() const;
  int SetupTrackCount() const;
  // A set-up TCP track of this session uses the interleaved channel.
  bool UsesChannel(int channel) const;
  // The set-up TCP track whose channels include `channel`, or -1.
  int TrackOfChannel(int channel) const;

  // The fan-out's bookkeeping.
  // Video is held back until the next key frame.
  bool waiting_key = false;
  // A TCP write of packets up to this index is under way.
  bool writing = false;
  uint64_t write_end = 0;
  // Packets before this index were handed to the kernel; `live` once the
  // client caught up with the stream (its joining burst is not counted in
  // the write delay).
  uint64_t written_index = 0;
  bool live = false;
  // What the client is sent is paced; a pump waits for it to allow more.
  RtspPacer pacer;
  bool pace_scheduled = false;
  unsigned long long bytes_sent = 0;
  unsigned long long packets_sent = 0;
  unsigned long long packets_dropped = 0;

 private:
  void SetState(State state);

  std::string id_;
  std::weak_ptr<RtspClient> client_;
  std::shared_ptr<RtspStream> stream_;
  std::vector<RtspSessionTrack> tracks_;
  std::vector<int> clock_rates_;
  State state_ = State::kInit;
  long long last_activity_ms_ = 0;
  uint64_t drain_end_ = 0;  // paused: what finishes the record being sent
  long long udp_heard_ms_ = 0;
  bool udp_answered_ = false;
  bool multicast_ = false;
  RtcpReception reception_;
  RtcpSentReports sent_reports_;
};

}  // namespace qz_rtsp_internal_server

#endif  // PROTOCOL_RTSP_IN_SERVER_CONTROL_QZ_RTSP_SESSION_H_
