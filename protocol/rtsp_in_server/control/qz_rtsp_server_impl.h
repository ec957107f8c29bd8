// The server's internals shared by the server and its connections. Network
// thread only, except where a member says otherwise.
#ifndef PROTOCOL_RTSP_IN_SERVER_CONTROL_QZ_RTSP_SERVER_IMPL_H_
#define PROTOCOL_RTSP_IN_SERVER_CONTROL_QZ_RTSP_SERVER_IMPL_H_

#include <asio.hpp>

#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <random>
#include <set>
#include <string>
#include <thread>

#include "protocol/rtsp_in_server/control/qz_rtsp_connection.h"
#include "protocol/rtsp_in_server/control/qz_rtsp_session.h"
#include "protocol/rtsp_in_server/media/qz_rtsp_stream.h"
#include "protocol/rtsp_in_server/net/qz_udp_batch.h"
#include "protocol/rtsp_in_server/qz_rtsp_server.h"
#include "protocol/rtsp_in_server/qz_rtsp_server_mgr.h"
#include "protocol/rtsp_in_server/wire/qz_rtsp_auth.h"

namespace qz_rtsp_internal_server {

class QZRtspServer::Impl : public QZRtspPipeAcceptor,
                           public std::enable_shared_from_this<QZRtspServer::Impl> {
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
  std::string UrlFor(const std::string& stream_name) const;
  QZRtspServerStats Stats();

  // Network thread.
  const QZRtspServerOptions& options() const { return options_; }
  const RtspAuthenticator& auth() const { return auth_; }
  std::shared_ptr<RtspStream> FindStream(const std::string& name);
  std::shared_ptr<RtspSession> CreateSession(const std::shared_ptr<RtspConnection>& connection,
                                             const std::shared_ptr<RtspStream>& stream);
  void DestroySession(const std::string& id);
  std::shared_ptr<RtspSession> FindSession(const std::string& id);
  const std::set<RtspSession*>& SessionsOf(const RtspStream& stream) const;
  void RemoveConnection(RtspConnection* connection);
  uint16_t udp_rtp_port() const { return udp_rtp_port_; }
  // Sends the session's playable packets over UDP and asks its connection to
  // write the TCP ones (inside a batch of records from the gate: once the
  // batch is done, so that its records share one write).
  // A UDP client's datagrams go into `batch` when given (the caller sends
  // it while the session lives), else into one of its own.
  void Pump(RtspSession& session, UdpBatch* batch = nullptr);
  // A batch on the RTP socket that counts each datagram on its session.
  UdpBatch NewUdpBatch();
  void SendUdp(RtspSession& session, int track, const uint8_t* data, size_t size, bool rtcp);
  asio::ip::udp::endpoint UdpDestination(const RtspSession& session, int track, bool rtcp) const;
  // Counts on the session's stream and on the server's totals.
  void CountSent(RtspSession& session, size_t bytes, size_t packets);
  void CountTcpWrite(RtspSession& session);
  void CountDropped(RtspSession& session, RtspCounters::Drop reason, unsigned long long packets);
  // A connection refused or closed by one of the limits.
  void CountRefused() { ++connections_refused_; }
  void SendSenderReports(RtspSession& session, long long now_ms);
  void SendFirstReports(RtspSession& session);
  void SendInterleavedReport(RtspSession& session,
                             RtspConnection* connection,
                             size_t track,
                             const std::vector<uint8_t>& report);
  // Asks the application for a key frame, at most once a second per stream.
  void RequestKeyFrame(RtspStream& stream);
  // Counts the stream's records that every client that keeps up has now
  // written (see RtspStream::SettleWritten).
  void SettleWrites(RtspStream& stream);
  // The same once the writes finished in this turn of the event loop are
  // done (after a gate batch's writes, or in a turn of its own): a scan of
  // the stream's clients per turn, not one per write.
  void ScheduleSettle(RtspStream& stream);
  // Moves a session's read position on when the ring dropped what it needed.
  void Resync(RtspSession& session);
  long long NowMs() const;
  asio::io_context& io() { return io_; }

 private:
  void DoAccept();
  void OnTick();
  void ReceiveRtcp(asio::ip::udp::socket& socket, int which);
  bool OpenUdp();
  void OnStreamPackets(RtspStream& stream);
  // Runs work handed over by the publisher's threads, then writes what it
  // queued for TCP clients.
  void RunGateBatch(const std::function<void()>& batch);
  void Shutdown();
  // Joins a network thread whose work is over and frees what it held.
  void Reap();

  QZRtspServerOptions options_;
  RtspAuthenticator auth_;
  asio::io_context io_;
  std::unique_ptr<asio::executor_work_guard<asio::io_context::executor_type>> work_;
  std::thread thread_;
  std::unique_ptr<asio::ip::tcp::acceptor> acceptor_;
  std::unique_ptr<asio::ip::udp::socket> udp_rtp_;
  std::unique_ptr<asio::ip::udp::socket> udp_rtcp_;
  uint16_t udp_rtp_port_ = 0;
  bool udp_v6_ = false;   // the UDP sockets are dual-stack IPv6
  bool udp_gso_ = false;  // segment UDP media; cleared when the kernel refuses
  std::array<uint8_t, 2048> rtcp_buffer_[2];
  asio::ip::udp::endpoint rtcp_sender_[2];
  std::unique_ptr<asio::steady_timer> tick_;
  std::shared_ptr<RtspIoGate> gate_;
  bool in_gate_batch_ = false;
  std::vector<std::shared_ptr<RtspConnection>> kicks_;  // to write after the gate's batch
  bool kicking_ = false;
  std::vector<std::shared_ptr<RtspStream>> settle_after_kicks_;

  std::atomic<bool> running_{false};
  std::atomic<uint16_t> port_{0};
  std::string url_host_;
  std::mt19937 rng_;

  mutable std::mutex streams_mutex_;  // guards streams_ (pipes arrive on publisher threads)
  std::map<std::string, std::shared_ptr<RtspStream>> streams_;

  std::set<std::shared_ptr<RtspConnection>> connections_;
  std::map<std::string, std::shared_ptr<RtspSession>> sessions_;
  std::map<const RtspStream*, std::set<RtspSession*>> stream_sessions_;

  RtspCounters totals_;
  std::atomic<unsigned long long> connections_refused_{0};
  std::atomic<int> stat_connections_{0};
  std::atomic<int> stat_sessions_{0};
  std::atomic<int> stat_playing_{0};
};

}  // namespace qz_rtsp_internal_server

#endif  // PROTOCOL_RTSP_IN_SERVER_CONTROL_QZ_RTSP_SERVER_IMPL_H_
