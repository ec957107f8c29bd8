#include "protocol/rtsp_in_server/qz_rtsp_server.h"

#include <algorithm>
#include <cctype>
#include <chrono>
#include <future>

#include "protocol/rtsp_in_server/control/qz_rtsp_server_impl.h"
#include "protocol/rtsp_in_server/net/qz_socket_setup.h"
#include "utility/qz_log.h"

namespace qz_rtsp_internal_server {
namespace {

using qz_utility::LogFormat;

constexpr auto kTickInterval = std::chrono::milliseconds(500);
// Refused connections waiting to read the request their 503 answers; more
// are closed without an answer.
constexpr int kMaxRefusing = 16;

// Stream names become a URL path segment: unreserved characters only
// (RFC 3986), so that every client can type and parse the URL.
bool IsUrlSafeName(const std::string& name) {
  if (name.empty() || name.size() > 255) {
    return false;
  }
  for (char c : name) {
    if (!std::isalnum(static_cast<unsigned char>(c)) && c != '-' && c != '_' && c != '.' &&
        c != '~') {
      return false;
    }
  }
  return name != "." && name != "..";
}

}  // namespace

// ---- public face ----------------------------------------------------------------

QZRtspServer::QZRtspServer(QZRtspServerOptions options)
    : impl_(std::make_shared<Impl>(std::move(options))) {
  QZRtspServerMgr::Instance()->RegisterServer(this, impl_);
}

QZRtspServer::~QZRtspServer() {
  QZRtspServerMgr::Instance()->UnregisterServer(this);
  impl_->Stop();
}

bool QZRtspServer::Start() {
  return impl_->Start();
}

void QZRtspServer::Stop() {
  impl_->Stop();
}

bool QZRtspServer::IsRunning() const {
  return impl_->running();
}

uint16_t QZRtspServer::Port() const {
  return impl_->port();
}

uint16_t QZRtspServer::HttpTunnelPort() const {
  return impl_->http_tunnel_port();
}

std::string QZRtspServer::UrlFor(const std::string& stream_name) const {
  return impl_->UrlFor(stream_name);
}

std::vector<std::string> QZRtspServer::CandidateUrls(const std::string& stream_name) const {
  return impl_->CandidateUrls(stream_name);
}

QZRtspServerStats QZRtspServer::GetStats() const {
  return impl_->Stats();
}

// ---- lifecycle ----------------------------------------------------------------------

QZRtspServer::Impl::Impl(QZRtspServerOptions options) : options_(std::move(options)) {
  // The application is called only while the server runs: a request posted
  // before a Stop() is not delivered after it.
  if (options_.on_key_frame_request) {
    options_.on_key_frame_request =
        [this, callback = options_.on_key_frame_request](const std::string& name) {
          if (running_.load()) {
            callback(name);
          }
        };
  }
}

QZRtspServer::Impl::~Impl() {
  Stop();
}

bool QZRtspServer::Impl::Start() {
  if (running_.load()) {
    return true;
  }
  Reap();  // the thread of a Stop() called from a callback
  io_.restart();
  // Every failure is logged with the system's reason (address in use,
  // permission denied, ...): a bare false tells the application nothing.
  std::string why;
  if (Listen(why) && !OpenUdp()) {
    why = "no UDP port pair for RTP and RTCP could be opened";
  }
  if (!why.empty()) {
    LogFormat("VartoLogIOS [E] QZRtspServer::Start cannot listen on port %u%s%s: %s\n",
              static_cast<unsigned>(options_.port), options_.bind_address.empty() ? "" : " at ",
              options_.bind_address.c_str(), why.c_str());
    acceptor_.reset();
    http_acceptor_.reset();
    udp_rtp_.reset();
    udp_rtcp_.reset();
    return false;
  }
  gate_ = std::make_shared<RtspIoGate>([this](std::function<void()> batch) {
    asio::post(io_, [this, batch = std::move(batch)] { core_->fanout().RunGateBatch(batch); });
  });
  udp_sink_.reset(new SocketUdpSink(*udp_rtp_, *udp_rtcp_, options_.udp_gso));
  LogFormat("VartoLogIOS [I] QZRtspServer::Start UDP media by the %s\n", udp_sink_->send_path());
  RtspServerCore::Env env;
  env.random = &RtspRandom::Crypto();
  env.udp = udp_sink_.get();
  env.post = [this](std::function<void()> work) { asio::post(io_, std::move(work)); };
  env.run_after = [this](int ms, std::function<void()> work) {
    // Kept until it fires, so that Shutdown() can cancel it: the work must
    // not run against the next Start()'s state.
    auto timer = std::make_shared<asio::steady_timer>(io_, std::chrono::milliseconds(ms));
    timers_.insert(timer);
    timer->async_wait([this, timer, work = std::move(work)](const asio::error_code& ec) {
      timers_.erase(timer);
      if (!ec) {
        work();
      }
    });
  };
  env.find_stream = [this](const std::string& name) { return FindStream(name); };
  env.udp_rtp_port = udp_rtp_port_;
  core_.reset(new RtspServerCore(options_, std::move(env), totals_));
  tick_.reset(new asio::steady_timer(io_));
  work_.reset(new asio::executor_work_guard<asio::io_context::executor_type>(io_.get_executor()));
  {
    std::lock_guard<std::mutex> lock(streams_mutex_);
    running_.store(true);
  }
  DoAccept(*acceptor_, options_.http_tunnel);
  if (http_acceptor_) {
    DoAccept(*http_acceptor_, true);
  }
  ReceiveUdp(*udp_rtp_, 0);
  ReceiveUdp(*udp_rtcp_, 1);
  OnTick();
  thread_ = std::thread([this] { io_.run(); });
  return true;
}

bool QZRtspServer::Impl::Listen(std::string& why) {
  acceptor_.reset(new asio::ip::tcp::acceptor(io_));
  if (!OpenRtspListener(*acceptor_, options_.bind_address, options_.port, why)) {
    return false;
  }
  asio::error_code ec;
  const asio::ip::tcp::endpoint endpoint = acceptor_->local_endpoint(ec);
  port_.store(endpoint.port());
  if (options_.http_tunnel_port >= 0) {
    http_acceptor_.reset(new asio::ip::tcp::acceptor(io_));
    if (options_.http_tunnel_port > 65535 ||
        !OpenRtspListener(*http_acceptor_, options_.bind_address,
                          static_cast<uint16_t>(options_.http_tunnel_port), why)) {
      why = "HTTP tunnel port " + std::to_string(options_.http_tunnel_port) + ": " +
            (why.empty() ? "out of range" : why);
      return false;
    }
    http_port_.store(http_acceptor_->local_endpoint(ec).port());
  }
  {
    std::lock_guard<std::mutex> lock(url_mutex_);
    listen_address_ = endpoint.address();
  }
  RefreshUrlHosts();
  return true;
}

std::vector<std::string> QZRtspServer::Impl::RefreshUrlHosts() {
  asio::ip::address at;
  {
    std::lock_guard<std::mutex> lock(url_mutex_);
    at = listen_address_;
  }
  std::vector<std::string> hosts;
  if (!options_.url_host.empty()) {
    hosts.push_back(options_.url_host);
  } else if (!at.is_unspecified()) {
    hosts.push_back(at.to_string());
  } else {
    // Listed at each call (a pipe accepted, the application asking): a
    // phone moves between Wi-Fi, cellular and VPNs while the server runs.
    std::vector<InterfaceAddress> interfaces = ListInterfaceAddresses();
    if (at.is_v4()) {  // the listener fell back to IPv4: no IPv6 reaches it
      interfaces.erase(
          std::remove_if(interfaces.begin(), interfaces.end(),
                         [](const InterfaceAddress& entry) { return entry.address.is_v6(); }),
          interfaces.end());
    }
    hosts = RankUrlHosts(interfaces);
  }
  std::lock_guard<std::mutex> lock(url_mutex_);
  if (url_hosts_.empty() || url_hosts_.front() != hosts.front()) {
    LogFormat("VartoLogIOS [I] QZRtspServer URLs name %s (%zu candidate hosts)\n",
              hosts.front().c_str(), hosts.size());
  }
  url_hosts_ = hosts;
  return hosts;
}

// One RTP/RTCP port pair for all clients: clients are told apart by their
// own addresses and ports.
bool QZRtspServer::Impl::OpenUdp() {
  UdpPortPair pair;
  asio::error_code ec;
  const asio::ip::address at = acceptor_->local_endpoint(ec).address();
  if (ec || !OpenUdpPortPair(
                io_, at, [] { return RtspRandom::Crypto().Next32(); }, pair)) {
    return false;
  }
  udp_rtp_ = std::move(pair.rtp);
  udp_rtcp_ = std::move(pair.rtcp);
  udp_rtp_port_ = pair.rtp_port;
  return true;
}

void QZRtspServer::Impl::Stop() {
  bool was_running;
  {
    std::lock_guard<std::mutex> lock(streams_mutex_);
    was_running = running_.load();
    running_.store(false);
  }
  if (was_running) {
    gate_->Close();
    port_.store(0);
    http_port_.store(0);
    if (std::this_thread::get_id() == thread_.get_id()) {
      // Called from a callback on the network thread (a key-frame request):
      // the shutdown happens here, the thread ends when the callback
      // returns, and the next Start() or the destructor joins it.
      Shutdown();
      work_.reset();
      io_.stop();
      return;
    }
    std::promise<void> done;
    asio::post(io_, [this, &done] {
      Shutdown();
      done.set_value();
    });
    done.get_future().wait();
    work_.reset();
    io_.stop();
  }
  Reap();
}

void QZRtspServer::Impl::Reap() {
  if (!thread_.joinable() || std::this_thread::get_id() == thread_.get_id()) {
    return;
  }
  thread_.join();
  // Handlers that never ran hold records and connections: drop them now.
  io_.restart();
  io_.poll();
  udp_sink_.reset();  // it reports what it still sends to the core
  core_.reset();
  acceptor_.reset();
  http_acceptor_.reset();
  udp_rtp_.reset();
  udp_rtcp_.reset();
  tick_.reset();
}

void QZRtspServer::Impl::Shutdown() {
  asio::error_code ec;
  acceptor_->close(ec);
  if (http_acceptor_) {
    http_acceptor_->close(ec);
  }
  tick_->cancel();
  for (const auto& timer : timers_) {
    timer->cancel();
  }
  udp_rtp_->close(ec);
  udp_rtcp_->close(ec);
  std::vector<std::shared_ptr<RtspConnection>> connections(connections_.begin(),
                                                           connections_.end());
  for (auto& connection : connections) {
    connection->Close();
  }
  connections_.clear();
  std::map<std::string, std::shared_ptr<RtspStream>> streams;
  {
    std::lock_guard<std::mutex> lock(streams_mutex_);
    streams.swap(streams_);
  }
  for (auto& entry : streams) {
    entry.second->Detach();
  }
  stat_connections_ = 0;
  stat_playing_ = 0;
  std::lock_guard<std::mutex> lock(stats_mutex_);
  session_stats_.clear();
}

// ---- pipes --------------------------------------------------------------------------

std::string QZRtspServer::Impl::UrlFor(const std::string& stream_name) {
  const std::vector<std::string> urls = CandidateUrls(stream_name);
  return urls.empty() ? std::string() : urls.front();
}

std::vector<std::string> QZRtspServer::Impl::CandidateUrls(const std::string& stream_name) {
  std::vector<std::string> urls;
  if (!running_.load()) {
    return urls;
  }
  const std::string port = std::to_string(port_.load());
  for (std::string host : RefreshUrlHosts()) {
    if (host.find(':') != std::string::npos && host.front() != '[') {
      host = "[" + host + "]";  // an IPv6 address
    }
    urls.push_back("rtsp://" + host + ":" + port + "/" + stream_name);
  }
  return urls;
}

bool QZRtspServer::Impl::AcceptPiple(const std::shared_ptr<QZRtspPacketPiple>& piple,
                                     std::string& why) {
  std::shared_ptr<RtspStream> stream;
  {
    std::lock_guard<std::mutex> lock(streams_mutex_);
    const std::string name = piple->StreamName();
    if (!running_.load()) {
      why = "the server is not running";
    } else if (!IsUrlSafeName(name)) {
      why = "a stream name is one URL path segment of 1-255 letters, digits and '-_.~'";
    } else if (streams_.count(name) != 0) {
      why = "a stream of that name is already served";
    }
    if (!why.empty()) {
      LogFormat("VartoLogIOS [E] QZRtspServer::AcceptPiple refused stream '%s': %s\n", name.c_str(),
                why.c_str());
      return false;
    }
    RtspStreamLimits limits;
    limits.max_payload = options_.rtp_payload_size;
    limits.keep_gop = options_.gop_cache;
    stream = std::make_shared<RtspStream>(piple, gate_, limits, RtspRandom::Crypto());
    // Both run on the network thread while the server runs (the core lives
    // until the thread is joined; streams are detached before that).
    stream->set_on_packets([this](RtspStream& s) { core_->fanout().OnStreamPackets(s); });
    stream->set_on_cache_lost([this](RtspStream& s) { core_->fanout().RequestKeyFrame(s); });
    streams_[name] = stream;
  }
  stream->Attach();
  // The addresses of the moment: the device may have changed networks
  // since the server started.
  piple->SetRtspURL(UrlFor(stream->name()));
  return true;
}

void QZRtspServer::Impl::WithdrawPiple(const std::shared_ptr<QZRtspPacketPiple>& piple) {
  std::shared_ptr<RtspStream> stream;
  {
    std::lock_guard<std::mutex> lock(streams_mutex_);
    for (auto it = streams_.begin(); it != streams_.end(); ++it) {
      if (it->second->piple() == piple) {
        stream = it->second;
        streams_.erase(it);
        break;
      }
    }
  }
  if (!stream) {
    return;
  }
  stream->Detach();
  // The stream is gone: its clients are disconnected, as after a TEARDOWN.
  gate_->Post([this, stream] {
    std::vector<std::shared_ptr<RtspClient>> to_close;
    for (RtspSession* session : core_->table().SessionsOf(*stream)) {
      if (auto client = session->client()) {
        to_close.push_back(client);
      }
    }
    for (auto& client : to_close) {
      client->Close();
    }
  });
}

std::shared_ptr<RtspStream> QZRtspServer::Impl::FindStream(const std::string& name) {
  std::lock_guard<std::mutex> lock(streams_mutex_);
  auto it = streams_.find(name);
  return it == streams_.end() ? nullptr : it->second;
}

// ---- network thread -----------------------------------------------------------------

void QZRtspServer::Impl::DoAccept(asio::ip::tcp::acceptor& acceptor, bool sniff) {
  acceptor.async_accept(
      [this, &acceptor, sniff](const asio::error_code& ec, asio::ip::tcp::socket socket) {
        if (ec == asio::error::operation_aborted || !acceptor.is_open()) {
          return;
        }
        if (ec) {
          // Out of file descriptors or a passing fault: try again shortly
          // rather than letting the accept loop die. The acceptor lives until
          // the thread is joined, after every timer has been cancelled.
          auto retry = std::make_shared<asio::steady_timer>(io_, std::chrono::milliseconds(100));
          retry->async_wait([this, retry, &acceptor, sniff](const asio::error_code& wait_ec) {
            if (!wait_ec && acceptor.is_open()) {
              DoAccept(acceptor, sniff);
            }
          });
          return;
        }
        Admit(std::move(socket), sniff);
        DoAccept(acceptor, sniff);
      });
}

void QZRtspServer::Impl::Admit(asio::ip::tcp::socket socket, bool sniff) {
  asio::error_code ec;
  const asio::ip::tcp::endpoint remote = socket.remote_endpoint(ec);
  if (ec) {
    return;  // already gone
  }
  std::vector<RtspClient*> open;
  int refusing = 0;
  for (const auto& connection : connections_) {
    if (connection->over_limit) {
      ++refusing;
    } else {
      open.push_back(connection.get());
    }
  }
  RtspClient* evict = nullptr;
  const RtspServerCore::Admission admission = core_->Admit(open, remote.address(), &evict);
  if (admission == RtspServerCore::Admission::kEvict) {
    core_->CountRefused();
    evict->Close();
  }
  const bool refused = admission == RtspServerCore::Admission::kRefuse;
  if (refused) {
    core_->CountRefused();
    if (refusing >= kMaxRefusing) {
      // A flood: no answer, the socket closes at once.
      socket.close(ec);
      return;
    }
  }
  auto connection = std::make_shared<RtspConnection>(
      *core_, std::move(socket), refused, sniff, [this](RtspConnection* closed) {
        for (auto it = connections_.begin(); it != connections_.end(); ++it) {
          if (it->get() == closed) {
            connections_.erase(it);
            break;
          }
        }
        stat_connections_ = static_cast<int>(connections_.size());
      });
  connections_.insert(connection);
  stat_connections_ = static_cast<int>(connections_.size());
  connection->Start();
}

// What clients send to the RTP and RTCP ports: receiver reports, BYE, and
// NAT keep-alives, routed to the sender's session by address and port.
void QZRtspServer::Impl::ReceiveUdp(asio::ip::udp::socket& socket, int which) {
  socket.async_receive_from(asio::buffer(udp_buffer_[which]), udp_sender_[which],
                            [this, &socket, which](const asio::error_code& ec, size_t size) {
                              if (ec == asio::error::operation_aborted || !socket.is_open()) {
                                return;
                              }
                              if (!ec) {
                                const RtspClock& clock = core_->fanout().clock();
                                core_->table().OnUdpPacket(
                                    udp_sender_[which], udp_buffer_[which].data(), size,
                                    core_->NowMs(), RtcpCompactNtp(clock.WallUs()));
                              }
                              ReceiveUdp(socket, which);
                            });
}

void QZRtspServer::Impl::OnTick() {
  const long long now = core_->NowMs();
  const std::map<const RtspStream*, int> playing = core_->Tick(now);
  int playing_total = 0;
  {
    std::lock_guard<std::mutex> lock(streams_mutex_);
    for (auto& entry : streams_) {
      auto it = playing.find(entry.second.get());
      entry.second->set_playing_count(it == playing.end() ? 0 : it->second);
      playing_total += it == playing.end() ? 0 : it->second;
    }
  }
  std::vector<std::shared_ptr<RtspConnection>> to_close;
  for (auto& connection : connections_) {
    connection->SizeSendBuffer();
    if (core_->Overdue(*connection, now) != nullptr) {
      core_->CountRefused();
      to_close.push_back(connection);
    }
  }
  for (auto& connection : to_close) {
    connection->Close();
  }
  stat_playing_ = playing_total;
  {
    std::vector<QZRtspSessionStats> sessions = core_->SessionStats();
    std::lock_guard<std::mutex> lock(stats_mutex_);
    session_stats_.swap(sessions);
  }
  tick_->expires_after(kTickInterval);
  tick_->async_wait([this](const asio::error_code& ec) {
    if (!ec) {
      OnTick();
    }
  });
}

QZRtspServerStats QZRtspServer::Impl::Stats() {
  QZRtspServerStats stats;
  stats.connections = stat_connections_.load();
  stats.playing = stat_playing_.load();
  {
    std::lock_guard<std::mutex> lock(streams_mutex_);
    stats.streams = static_cast<int>(streams_.size());
    for (const auto& entry : streams_) {
      stats.stream_stats.push_back(entry.second->Stats());
      stats.sessions += stats.stream_stats.back().sessions;
    }
  }
  const RtspCounters& totals = totals_.delivery;
  stats.bytes_sent = totals.bytes_sent.load();
  stats.packets_sent = totals.packets_sent.load();
  stats.tcp_writes = totals.tcp_writes.load();
  stats.dropped = totals.Drops();
  stats.packets_dropped = stats.dropped.total();
  stats.key_frame_requests = totals.key_frame_requests.load();
  stats.connections_refused = totals_.refused.load();
  std::lock_guard<std::mutex> lock(stats_mutex_);
  stats.session_stats = session_stats_;
  return stats;
}

}  // namespace qz_rtsp_internal_server
