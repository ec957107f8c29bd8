// One RTSP session: the tracks a client set up, how each is delivered, and
// the client's read position in its stream's shared packet ring. Lives on the
// server's network thread only.
#ifndef PROTOCOL_RTSP_IN_SERVER_CONTROL_QZ_RTSP_SESSION_H_
#define PROTOCOL_RTSP_IN_SERVER_CONTROL_QZ_RTSP_SESSION_H_

#include <asio.hpp>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "protocol/rtsp_in_server/media/qz_rtsp_stream.h"
#include "protocol/rtsp_in_server/wire/qz_rtsp_headers.h"

namespace qz_rtsp_internal_server {

class RtspConnection;
class RtspStream;

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
  asio::ip::udp::endpoint rtp_endpoint;
  asio::ip::udp::endpoint rtcp_endpoint;
  long long last_sr_ms = 0;

  // Whether `packet` of this track goes to the client (and a waiting video
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

// Owned by the server's session map; the fan-out keeps the sessions it
// pumps alive with shared_from_this() rather than looking each one up by id.
struct RtspSession : RtspRingReader, std::enable_shared_from_this<RtspSession> {
  enum class State { kInit, kReady, kPlaying };

  std::string id;
  std::weak_ptr<RtspConnection> connection;
  std::shared_ptr<RtspStream> stream;
  std::vector<RtspSessionTrack> tracks;
  State state = State::kInit;
  void SetState(State s) {
    state = s;
    reading = s == State::kPlaying;
  }
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

  long long last_activity_ms = 0;
  unsigned long long bytes_sent = 0;
  unsigned long long packets_sent = 0;
  unsigned long long packets_dropped = 0;

  bool HasTcpTrack() const {
    for (const auto& t : tracks) {
      if (t.setup && t.tcp)
        return true;
    }
    return false;
  }
  int SetupTrackCount() const {
    int n = 0;
    for (const auto& t : tracks) {
      n += t.setup ? 1 : 0;
    }
    return n;
  }
  bool AnyTrackSetup() const {
    for (const auto& t : tracks) {
      if (t.setup)
        return true;
    }
    return false;
  }
};

}  // namespace qz_rtsp_internal_server

#endif  // PROTOCOL_RTSP_IN_SERVER_CONTROL_QZ_RTSP_SESSION_H_
