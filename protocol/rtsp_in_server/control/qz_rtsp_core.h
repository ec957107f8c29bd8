// The server's logic on its network thread without its sockets: the session
// table, the fan-out and the request handler, wired to the seams (clock,
// random source, UDP sink, deferred work). The server builds one for each
// Start(); tests build one on fakes and drive it with requests, records and
// clock steps, reading what it would send.
#ifndef PROTOCOL_RTSP_IN_SERVER_CONTROL_QZ_RTSP_CORE_H_
#define PROTOCOL_RTSP_IN_SERVER_CONTROL_QZ_RTSP_CORE_H_

#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "protocol/rtsp_in_server/control/qz_rtsp_fanout.h"
#include "protocol/rtsp_in_server/control/qz_rtsp_request_handler.h"
#include "protocol/rtsp_in_server/control/qz_rtsp_session_table.h"
#include "protocol/rtsp_in_server/control/qz_rtsp_tunnel_table.h"
#include "protocol/rtsp_in_server/qz_rtsp_server.h"

namespace qz_rtsp_internal_server {

class RtspServerCore {
 public:
  struct Env {
    const RtspClock* clock = &RtspClock::System();
    RtspRandom* random = nullptr;
    UdpSink* udp = nullptr;
    // Work for a later turn of the network thread, now or after `ms`.
    std::function<void(std::function<void()>)> post;
    std::function<void(int ms, std::function<void()>)> run_after;
    std::function<std::shared_ptr<RtspStream>(const std::string& name)> find_stream;
    uint16_t udp_rtp_port = 0;
  };
  // Counted across restarts, read from any thread.
  struct Totals {
    RtspCounters delivery;
    std::atomic<unsigned long long> refused{0};  // clients refused or closed by a limit
  };

  RtspServerCore(const QZRtspServerOptions& options, Env env, Totals& totals);

  RtspSessionTable& table() { return table_; }
  RtspFanout& fanout() { return fanout_; }
  RtspRequestHandler& handler() { return handler_; }
  RtspTunnelTable& tunnels() { return tunnels_; }
  const QZRtspServerOptions& options() const { return options_; }
  long long NowMs() const { return env_.clock->SteadyUs() / 1000; }
  void CountRefused() { ++totals_.refused; }

  // A connection from `from` arrives while `open` are connected (refused
  // ones left out): admitted; admitted once `*evict` (the oldest without a
  // playing session) is closed to make room; or refused, because the table
  // is full of playing clients or `from` already holds its share.
  enum class Admission { kAdmit, kEvict, kRefuse };
  Admission Admit(const std::vector<RtspClient*>& open,
                  const asio::ip::address& from,
                  RtspClient** evict) const;
  // Every tick, for each connection: why it must close now (no session for
  // the idle limit, a request begun too long ago, writes blocked for the
  // session timeout, a refused connection that sent nothing), or null. The
  // POST half of a paired HTTP tunnel has no idle clock: its GET's counts.
  const char* Overdue(RtspClient& client, long long now_ms) const;

  // Every half second: silent sessions expire (alone: their connections
  // stay), playing ones get their due sender reports. Returns how many
  // sessions of each stream play.
  std::map<const RtspStream*, int> Tick(long long now_ms);
  // The connection closed: its sessions end.
  void ClientClosed(RtspClient& client);
  // What every session looks like now, for statistics.
  std::vector<QZRtspSessionStats> SessionStats() const;

 private:
  QZRtspServerOptions options_;
  Env env_;
  Totals& totals_;
  RtspSessionTable table_;
  RtspFanout fanout_;
  RtspRequestHandler handler_;
  RtspTunnelTable tunnels_;
};

}  // namespace qz_rtsp_internal_server

#endif  // PROTOCOL_RTSP_IN_SERVER_CONTROL_QZ_RTSP_CORE_H_
