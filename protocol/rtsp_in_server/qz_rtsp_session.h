// One RTSP session: the tracks a client set up, how each is delivered, and
// the client's read position in its stream's shared packet ring. Lives on the
// server's network thread only.
#ifndef PROTOCOL_RTSP_IN_SERVER_QZ_RTSP_SESSION_H_
#define PROTOCOL_RTSP_IN_SERVER_QZ_RTSP_SESSION_H_

#include <asio.hpp>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "protocol/rtsp_in_server/qz_rtsp_transport.h"

namespace qz_rtsp_internal_server {

class RtspConnection;
class RtspStream;

struct RtspSessionTrack {
  bool setup = false;
  bool tcp = false;
  asio::ip::udp::endpoint rtp_endpoint;
  asio::ip::udp::endpoint rtcp_endpoint;
  long long last_sr_ms = 0;
};

// Owned by the server's session map; the fan-out keeps the sessions it
// pumps alive with shared_from_this() rather than looking each one up by id.
struct RtspSession : std::enable_shared_from_this<RtspSession> {
  enum class State { kInit, kReady, kPlaying };

  std::string id;
  std::weak_ptr<RtspConnection> connection;
  std::shared_ptr<RtspStream> stream;
  std::vector<RtspSessionTrack> tracks;
  State state = State::kInit;

  // Ring position of the next packet this client gets.
  uint64_t read_index = 0;
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
  bool AnyTrackSetup() const {
    for (const auto& t : tracks) {
      if (t.setup)
        return true;
    }
    return false;
  }
};

}  // namespace qz_rtsp_internal_server

#endif  // PROTOCOL_RTSP_IN_SERVER_QZ_RTSP_SESSION_H_
