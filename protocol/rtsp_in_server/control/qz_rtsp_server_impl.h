// The server's lifecycle and sockets: the listening sockets (RTSP, and the
// HTTP tunnel and TLS ports when asked for) and accept, the TLS context, the
// UDP port pair and the multicast socket, the network thread, the streams
// offered through the registry, the half-second tick and the statistics
// (qz_rtsp_server.cc; the sockets, accepting and the URLs in
// qz_rtsp_server_sockets.cc). What happens to requests, sessions and packets
// is the core's (qz_rtsp_core.h).
#ifndef PROTOCOL_RTSP_IN_SERVER_CONTROL_QZ_RTSP_SERVER_IMPL_H_
#define PROTOCOL_RTSP_IN_SERVER_CONTROL_QZ_RTSP_SERVER_IMPL_H_

#include <asio.hpp>
#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "protocol/rtsp_in_server/control/qz_rtsp_connection.h"
#include "protocol/rtsp_in_server/control/qz_rtsp_core.h"
#include "protocol/rtsp_in_server/media/qz_rtsp_stream.h"
#include "protocol/rtsp_in_server/net/qz_udp_sink.h"
#include "protocol/rtsp_in_server/qz_rtsp_server.h"
#include "protocol/rtsp_in_server/qz_rtsp_server_mgr.h"
#include "protocol/rtsp_in_server/tls/qz_tls_server.h"

namespace qz_rtsp_internal_server {

class QZRtspServer::Impl : public QZRtspPipeAcceptor {
 public:
  explicit Impl(QZRtspServerOptions options);
  ~Impl() override;

  bool Start();
  void Stop();

  // Any thread.
  bool AcceptPiple(const std::shared_ptr<QZRtspPacketPiple>& piple, std::string& why) override;
  void WithdrawPiple(const std::shared_ptr<QZRtspPacketPiple>& piple) override;
  bool running() const { return running_.load(); }
  uint16_t port() const { return port_.load(); }
  uint16_t http_tunnel_port() const { return http_port_.load(); }
  uint16_t tls_port() const { return tls_port_.load(); }
  std::string UrlFor(const std::string& stream_name);
  std::vector<std::string> CandidateUrls(const std::string& stream_name);
  std::string TlsUrlFor(const std::string& stream_name);
  QZRtspServerStats Stats();

 private:
  bool Listen(std::string& why);
  // A second listener (the HTTP tunnel's, TLS's) on `port` (0: a free one)
  // where the RTSP one listens; false with the reason in `why`.
  bool ListenAlso(const char* what,
                  int port,
                  std::unique_ptr<asio::ip::tcp::acceptor>& acceptor,
                  std::atomic<uint16_t>& bound,
                  std::string& why);
  // `scheme`://host:`port`/`stream_name` for every host of RefreshUrlHosts().
  std::vector<std::string> Urls(const char* scheme, uint16_t port, const std::string& stream_name);
  // The hosts the URLs name, best first, worked out anew: the one the
  // application set, else the address listened on, else (listening on every
  // interface) the device's addresses as they are now.
  std::vector<std::string> RefreshUrlHosts();
  bool OpenUdp();
  // Accepts on `acceptor` for as long as it is open; `sniff`: its
  // connections may be HTTP tunnel halves; `tls`: they run inside TLS.
  void DoAccept(asio::ip::tcp::acceptor& acceptor, bool sniff, bool tls);
  // A new connection: admitted, admitted in place of an idle one, or
  // refused (answered 503 and closed).
  void Admit(asio::ip::tcp::socket socket, bool sniff, bool tls);
  void ReceiveUdp(asio::ip::udp::socket& socket, int which);
  void OnTick();
  std::shared_ptr<RtspStream> FindStream(const std::string& name);
  void Shutdown();
  // Joins a network thread whose work is over and frees what it held.
  void Reap();

  QZRtspServerOptions options_;
  asio::io_context io_;
  std::unique_ptr<asio::executor_work_guard<asio::io_context::executor_type>> work_;
  std::thread thread_;
  std::unique_ptr<asio::ip::tcp::acceptor> acceptor_;
  std::unique_ptr<asio::ip::tcp::acceptor> http_acceptor_;  // the separate tunnel port
  std::unique_ptr<asio::ip::tcp::acceptor> tls_acceptor_;
  // From Start() until the thread is joined (its connections use it).
  std::unique_ptr<TlsServerContext> tls_;
  std::unique_ptr<asio::ip::udp::socket> udp_rtp_;
  std::unique_ptr<asio::ip::udp::socket> udp_rtcp_;
  std::unique_ptr<asio::ip::udp::socket> udp_multicast_;  // with options_.multicast
  uint16_t udp_rtp_port_ = 0;
  std::array<uint8_t, 2048> udp_buffer_[2];
  asio::ip::udp::endpoint udp_sender_[2];
  std::unique_ptr<asio::steady_timer> tick_;
  std::set<std::shared_ptr<asio::steady_timer>> timers_;  // the core's deferred work
  std::shared_ptr<RtspIoGate> gate_;
  std::unique_ptr<SocketUdpSink> udp_sink_;
  std::unique_ptr<RtspServerCore> core_;  // from Start() until the thread is joined

  std::atomic<bool> running_{false};
  std::atomic<uint16_t> port_{0};
  std::atomic<uint16_t> http_port_{0};
  std::atomic<uint16_t> tls_port_{0};
  std::mutex url_mutex_;  // guards what follows: URLs are asked for on any thread
  asio::ip::address listen_address_;
  std::vector<std::string> url_hosts_;  // the latest, to log when the best one changes

  mutable std::mutex streams_mutex_;  // guards streams_ (pipes arrive on publisher threads)
  std::map<std::string, std::shared_ptr<RtspStream>> streams_;
  std::set<std::shared_ptr<RtspConnection>> connections_;

  RtspServerCore::Totals totals_;
  std::atomic<int> stat_connections_{0};
  std::atomic<int> stat_playing_{0};
  std::mutex stats_mutex_;  // guards session_stats_
  std::vector<QZRtspSessionStats> session_stats_;
};

}  // namespace qz_rtsp_internal_server

#endif  // PROTOCOL_RTSP_IN_SERVER_CONTROL_QZ_RTSP_SERVER_IMPL_H_
