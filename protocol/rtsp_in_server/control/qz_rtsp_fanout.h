// Sends each stream's packets to the sessions that play it: over UDP through
// the packet sink (one batch per record across every client; a multicast
// group's sender is one such session, its members get nothing of their
// own), and over TCP by asking each client's connection to write, which
// then gathers its media here, each session paced (RtspPacer). Also the RTCP
// sender reports, the catch-up of a client that fell behind the stream's
// ring (cut back to a key frame, and a key frame asked for), and the
// settling of the write-delay statistics once every client that keeps up
// has written a record. Network thread only.
#ifndef PROTOCOL_RTSP_IN_SERVER_CONTROL_QZ_RTSP_FANOUT_H_
#define PROTOCOL_RTSP_IN_SERVER_CONTROL_QZ_RTSP_FANOUT_H_

#include <array>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "protocol/rtsp_in_server/control/qz_rtsp_session_table.h"
#include "protocol/rtsp_in_server/media/qz_rtsp_seams.h"
#include "protocol/rtsp_in_server/media/qz_rtsp_stream.h"
#include "protocol/rtsp_in_server/net/qz_udp_sink.h"

namespace qz_rtsp_internal_server {

// One scatter-gather write of a TCP client's media: the packets' bytes as
// they are shared by every client, with an interleaved header of its own in
// front of a packet sent on another channel than the packet's own.
struct RtspTcpWrite {
  static constexpr size_t kMaxBuffers = 64;  // one sendmsg() takes up to 64 in Asio
  static constexpr size_t kMaxBytes = 256 * 1024;

  std::vector<asio::const_buffer> buffers;
  std::vector<std::shared_ptr<RtpPacket>> packets;  // kept alive while written
  std::array<std::array<uint8_t, 4>, kMaxBuffers> headers;
  std::shared_ptr<RtspSession> session;
};

class RtspFanout {
 public:
  struct Env {
    const RtspClock* clock = &RtspClock::System();
    // Runs work later on the network thread, in a turn of its own, now or
    // after `ms`.
    std::function<void(std::function<void()>)> post;
    std::function<void(int ms, std::function<void()>)> run_after;
    // Asks the application for a key frame (called from a posted turn).
    std::function<void(const std::string& stream)> on_key_frame_request;
    bool gop_cache = true;
  };

  RtspFanout(RtspSessionTable& table, UdpSink& udp, RtspCounters& totals, Env env);

  // New packets in `stream`: every playing session gets them.
  void OnStreamPackets(RtspStream& stream);
  // Sends what `session` has not read yet (UDP at once, TCP by kicking its
  // connection's write).
  void Pump(RtspSession& session);
  // Runs work handed over by the publisher's threads, then writes what it
  // queued for TCP clients: each connection once, the records of a batch in
  // one write.
  void RunGateBatch(const std::function<void()>& batch);

  // PLAY: each active track's report, anchored at the first packet the
  // client gets, before any of its media.
  void StartReports(RtspSession& session);
  // Every few seconds (tick): the reports of the tracks due for one.
  void SendDueReports(RtspSession& session, long long now_ms);
  // At most once a second per stream: one asked for sooner is made when the
  // second ends.
  void RequestKeyFrame(RtspStream& stream);

  // The next media write of one of `client`'s TCP sessions into `write`;
  // false when nothing waits. Its UDP tracks' packets are sent on the way.
  bool GatherTcp(RtspClient& client, RtspTcpWrite& write);
  // The write gathered last ended: `bytes` written, or it failed.
  void FinishTcpWrite(RtspTcpWrite& write, bool ok, size_t bytes);

  long long NowMs() const { return clock_.SteadyUs() / 1000; }
  const RtspClock& clock() const { return clock_; }

 private:
  void PumpOne(RtspSession& session);  // UDP datagrams left in the sink's batch
  void PumpUdp(RtspSession& session);
  void Resync(RtspSession& session);
  // The pacer holds back what `session` has not read yet: pump it again
  // once it allows more.
  void PaceLater(RtspSession& session);
  void SendReports(RtspSession& session, long long now_ms, bool start);
  void SendReport(RtspSession& session, size_t track, const std::vector<uint8_t>& report);
  void SettleWrites(RtspStream& stream);
  void ScheduleSettle(RtspStream& stream);
  void CountSent(RtspSession& session, size_t bytes, size_t packets);
  void CountDropped(RtspSession& session, RtspCounters::Drop reason, unsigned long long packets);

  RtspSessionTable& table_;
  UdpSink& udp_;
  RtspCounters& totals_;
  Env env_;
  const RtspClock& clock_;
  bool in_gate_batch_ = false;
  std::vector<std::shared_ptr<RtspClient>> kicks_;  // to write after the gate's batch
  bool kicking_ = false;
  std::vector<std::shared_ptr<RtspStream>> settle_after_kicks_;
};

}  // namespace qz_rtsp_internal_server

#endif  // PROTOCOL_RTSP_IN_SERVER_CONTROL_QZ_RTSP_FANOUT_H_
