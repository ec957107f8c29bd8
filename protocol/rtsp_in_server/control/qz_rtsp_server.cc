#include "protocol/rtsp_in_server/qz_rtsp_server.h"

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

uint16_t QZRtspServer::TlsPort() const {
  return impl_->tls_port();
}

std::string QZRtspServer::UrlFor(const std::string& stream_name) const {
  return impl_->UrlFor(stream_name);
}

std::vector<std::string> QZRtspServer::CandidateUrls(const std::string& stream_name) const {
  return impl_->CandidateUrls(stream_name);
}

std::string QZRtspServer::TlsUrlFor(const std::string& stream_name) const {
  return impl_->TlsUrlFor(stream_name);
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
  RtspMulticastConfig multicast;
  std::string why =
      options_.multicast ? RtspMulticastConfig::FromOptions(options_, &multicast) : std::string();
  if (why.empty() && options_.tls_port >= 0) {
    TlsCredentials credentials;
    credentials.cert_file = options_.tls_cert_file;
    credentials.key_file = options_.tls_key_file;
    credentials.cert_pem = options_.tls_cert_pem;
    credentials.key_pem = options_.tls_key_pem;
    tls_ = TlsServerContext::Create(credentials, why);
    if (!tls_) {
      LogFormat("VartoLogIOS [E] QZRtspServer::Start cannot serve TLS: %s\n", why.c_str());
      return false;
    }
  }
  if (why.empty() && Listen(why) && !OpenUdp()) {
    why = "no UDP port pair for RTP and RTCP could be opened";
  }
  asio::error_code ec;
  if (why.empty() && options_.multicast) {
    OpenMulticastSender(io_, acceptor_->local_endpoint(ec).address(), multicast.ttl, udp_multicast_,
                        why);
  }
  if (!why.empty()) {
    LogFormat("VartoLogIOS [E] QZRtspServer::Start cannot listen on port %u%s%s: %s\n",
              static_cast<unsigned>(options_.port), options_.bind_address.empty() ? "" : " at ",
              options_.bind_address.c_str(), why.c_str());
    acceptor_.reset();
    http_acceptor_.reset();
    tls_acceptor_.reset();
    tls_.reset();
    udp_rtp_.reset();
    udp_rtcp_.reset();
    udp_multicast_.reset();
    return false;
  }
  gate_ = std::make_shared<RtspIoGate>([this](std::function<void()> batch) {
    asio::post(io_, [this, batch = std::move(batch)] { core_->fanout().RunGateBatch(batch); });
  });
  udp_sink_.reset(new SocketUdpSink(*udp_rtp_, *udp_rtcp_, options_.udp_gso, udp_multicast_.get()));
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
  DoAccept(*acceptor_, options_.http_tunnel, false);
  if (http_acceptor_) {
    DoAccept(*http_acceptor_, true, false);
  }
  if (tls_acceptor_) {
    // What the RTSP port serves, inside TLS.
    DoAccept(*tls_acceptor_, options_.http_tunnel, true);
  }
  ReceiveUdp(*udp_rtp_, 0);
  ReceiveUdp(*udp_rtcp_, 1);
  OnTick();
  thread_ = std::thread([this] { io_.run(); });
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
    tls_port_.store(0);
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
  tls_acceptor_.reset();
  tls_.reset();  // after every connection
  udp_rtp_.reset();
  udp_rtcp_.reset();
  udp_multicast_.reset();
  tick_.reset();
}

void QZRtspServer::Impl::Shutdown() {
  asio::error_code ec;
  acceptor_->close(ec);
  if (http_acceptor_) {
    http_acceptor_->close(ec);
  }
  if (tls_acceptor_) {
    tls_acceptor_->close(ec);
  }
  tick_->cancel();
  for (const auto& timer : timers_) {
    timer->cancel();
  }
  udp_rtp_->close(ec);
  udp_rtcp_->close(ec);
  if (udp_multicast_) {
    udp_multicast_->close(ec);
  }
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
