#include "protocol/rtsp_in_server/qz_rtsp_server.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <future>

#include "protocol/rtsp_in_server/control/qz_rtsp_server_impl.h"
#include "protocol/rtsp_in_server/net/qz_udp_batch.h"
#include "utility/qz_log.h"

namespace qz_rtsp_internal_server {
namespace {

using qz_utility::LogFormat;

constexpr long long kSenderReportIntervalMs = 5000;
constexpr auto kTickInterval = std::chrono::milliseconds(500);

// The first IPv4 address of an interface that is up and not loopback.
std::string FirstNonLoopbackAddress() {
  std::string result = "127.0.0.1";
  ifaddrs* list = nullptr;
  if (getifaddrs(&list) != 0) {
    return result;
  }
  for (ifaddrs* it = list; it != nullptr; it = it->ifa_next) {
    if (it->ifa_addr == nullptr || it->ifa_addr->sa_family != AF_INET ||
        (it->ifa_flags & IFF_UP) == 0 || (it->ifa_flags & IFF_LOOPBACK) != 0) {
      continue;
    }
    char text[INET_ADDRSTRLEN] = {0};
    const auto* addr = reinterpret_cast<const sockaddr_in*>(it->ifa_addr);
    if (inet_ntop(AF_INET, &addr->sin_addr, text, sizeof(text)) != nullptr) {
      result = text;
      break;
    }
  }
  freeifaddrs(list);
  return result;
}

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

std::string QZRtspServer::UrlFor(const std::string& stream_name) const {
  return impl_->UrlFor(stream_name);
}

QZRtspServerStats QZRtspServer::GetStats() const {
  return impl_->Stats();
}

// ---- lifecycle ----------------------------------------------------------------------

QZRtspServer::Impl::Impl(QZRtspServerOptions options)
    : options_(std::move(options)),
      auth_(options_.auth_user,
            options_.auth_password,
            options_.auth_realm,
            options_.allow_basic_auth),
      rng_(std::random_device{}()) {}

QZRtspServer::Impl::~Impl() {
  Stop();
}

long long QZRtspServer::Impl::NowMs() const {
  return std::chrono::duration_cast<std::chrono::milliseconds>(
             std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

bool QZRtspServer::Impl::Start() {
  if (running_.load()) {
    return true;
  }
  Reap();  // the thread of a Stop() called from a callback
  // Every failure is logged with the system's reason (address in use,
  // permission denied, ...): a bare false tells the application nothing.
  auto fail = [this](const std::string& reason) {
    LogFormat("VartoLogIOS [E] QZRtspServer::Start cannot listen on port %u%s%s: %s\n",
              static_cast<unsigned>(options_.port), options_.bind_address.empty() ? "" : " at ",
              options_.bind_address.c_str(), reason.c_str());
    acceptor_.reset();
    udp_rtp_.reset();
    udp_rtcp_.reset();
    return false;
  };
  io_.restart();
  asio::error_code ec;
  acceptor_.reset(new asio::ip::tcp::acceptor(io_));
  asio::ip::tcp::endpoint endpoint;
  if (options_.bind_address.empty()) {
    endpoint = asio::ip::tcp::endpoint(asio::ip::tcp::v6(), options_.port);
  } else {
    const asio::ip::address address = asio::ip::make_address(options_.bind_address, ec);
    if (ec) {
      return fail("not an IP address: " + ec.message());
    }
    endpoint = asio::ip::tcp::endpoint(address, options_.port);
  }
  acceptor_->open(endpoint.protocol(), ec);
  if (ec && options_.bind_address.empty()) {
    endpoint = asio::ip::tcp::endpoint(asio::ip::tcp::v4(), options_.port);  // no IPv6 here
    acceptor_->open(endpoint.protocol(), ec);
  }
  if (ec) {
    return fail("socket: " + ec.message());
  }
  if (endpoint.protocol() == asio::ip::tcp::v6()) {
    acceptor_->set_option(asio::ip::v6_only(false), ec);  // IPv4 clients too
  }
  acceptor_->set_option(asio::ip::tcp::acceptor::reuse_address(true), ec);
  acceptor_->bind(endpoint, ec);
  if (ec) {
    return fail("bind: " + ec.message());
  }
  acceptor_->listen(asio::socket_base::max_listen_connections, ec);
  if (ec) {
    return fail("listen: " + ec.message());
  }
  if (!OpenUdp()) {
    return fail("no UDP port pair for RTP and RTCP could be opened");
  }
  port_.store(acceptor_->local_endpoint(ec).port());
  // URLs name an address the server listens on: the bound one, or, bound to
  // every interface, the device's LAN address.
  const asio::ip::address bound = endpoint.address();
  url_host_ = !options_.url_host.empty() ? options_.url_host
              : bound.is_unspecified()   ? FirstNonLoopbackAddress()
                                         : bound.to_string();
  gate_ = std::make_shared<RtspIoGate>([this](std::function<void()> batch) {
    asio::post(io_, [this, batch = std::move(batch)] { RunGateBatch(batch); });
  });
  tick_.reset(new asio::steady_timer(io_));
  work_.reset(new asio::executor_work_guard<asio::io_context::executor_type>(io_.get_executor()));
  {
    std::lock_guard<std::mutex> lock(streams_mutex_);
    running_.store(true);
  }
  DoAccept();
  ReceiveRtcp(*udp_rtp_, 0);
  ReceiveRtcp(*udp_rtcp_, 1);
  OnTick();
  thread_ = std::thread([this] { io_.run(); });
  return true;
}

bool QZRtspServer::Impl::OpenUdp() {
  // One RTP/RTCP port pair for all clients: clients are told apart by their
  // own addresses.
  for (int attempt = 0; attempt < 64; ++attempt) {
    const uint16_t port = static_cast<uint16_t>(20000 + 2 * (rng_() % 20000));
    asio::error_code ec;
    auto rtp = std::make_unique<asio::ip::udp::socket>(io_);
    auto rtcp = std::make_unique<asio::ip::udp::socket>(io_);
    asio::ip::udp protocol = asio::ip::udp::v6();
    rtp->open(protocol, ec);
    if (ec) {
      protocol = asio::ip::udp::v4();
      rtp->open(protocol, ec);
    }
    if (ec) {
      return false;
    }
    rtcp->open(protocol, ec);
    if (protocol == asio::ip::udp::v6()) {
      rtp->set_option(asio::ip::v6_only(false), ec);
      rtcp->set_option(asio::ip::v6_only(false), ec);
    }
    rtp->bind(asio::ip::udp::endpoint(protocol, port), ec);
    if (ec) {
      continue;
    }
    rtcp->bind(asio::ip::udp::endpoint(protocol, static_cast<uint16_t>(port + 1)), ec);
    if (ec) {
      continue;
    }
    // Media is never queued behind a slow network: a full socket buffer
    // drops that packet for that client.
    rtp->non_blocking(true, ec);
    rtcp->non_blocking(true, ec);
    rtp->set_option(asio::socket_base::send_buffer_size(1 << 20), ec);
    udp_rtp_ = std::move(rtp);
    udp_rtcp_ = std::move(rtcp);
    udp_rtp_port_ = port;
    udp_v6_ = protocol == asio::ip::udp::v6();
    udp_gso_ = options_.udp_gso;
    return true;
  }
  return false;
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
  acceptor_.reset();
  udp_rtp_.reset();
  udp_rtcp_.reset();
  tick_.reset();
}

void QZRtspServer::Impl::Shutdown() {
  asio::error_code ec;
  acceptor_->close(ec);
  tick_->cancel();
  udp_rtp_->close(ec);
  udp_rtcp_->close(ec);
  std::vector<std::shared_ptr<RtspConnection>> connections(connections_.begin(),
                                                           connections_.end());
  for (auto& connection : connections) {
    connection->Close();
  }
  connections_.clear();
  sessions_.clear();
  stream_sessions_.clear();
  std::map<std::string, std::shared_ptr<RtspStream>> streams;
  {
    std::lock_guard<std::mutex> lock(streams_mutex_);
    streams.swap(streams_);
  }
  for (auto& entry : streams) {
    entry.second->Detach();
  }
  stat_connections_ = 0;
  stat_sessions_ = 0;
  stat_playing_ = 0;
}

// ---- pipes --------------------------------------------------------------------------

std::string QZRtspServer::Impl::UrlFor(const std::string& stream_name) const {
  std::string host = url_host_;
  if (host.find(':') != std::string::npos && host.front() != '[') {
    host = "[" + host + "]";
  }
  return "rtsp://" + host + ":" + std::to_string(port_.load()) + "/" + stream_name;
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
    stream->set_on_packets([this](RtspStream& s) { OnStreamPackets(s); });
    stream->set_on_cache_lost([this](RtspStream& s) { RequestKeyFrame(s); });
    streams_[name] = stream;
  }
  stream->Attach();
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
    std::vector<std::shared_ptr<RtspConnection>> to_close;
    for (RtspSession* session : SessionsOf(*stream)) {
      if (auto connection = session->connection.lock()) {
        to_close.push_back(connection);
      }
    }
    for (auto& connection : to_close) {
      connection->Close();
    }
  });
}

std::shared_ptr<RtspStream> QZRtspServer::Impl::FindStream(const std::string& name) {
  std::lock_guard<std::mutex> lock(streams_mutex_);
  auto it = streams_.find(name);
  return it == streams_.end() ? nullptr : it->second;
}

// ---- sessions and connections ---------------------------------------------------------

std::shared_ptr<RtspSession> QZRtspServer::Impl::CreateSession(
    const std::shared_ptr<RtspConnection>& connection,
    const std::shared_ptr<RtspStream>& stream) {
  auto session = std::make_shared<RtspSession>();
  do {
    char id[17];
    const unsigned long long value = RtspRandom::Crypto().Next64();
    snprintf(id, sizeof(id), "%016llX", value);
    session->id = id;
  } while (sessions_.count(session->id) != 0);
  session->connection = connection;
  session->stream = stream;
  session->tracks.resize(static_cast<size_t>(stream->track_count()));
  session->last_activity_ms = NowMs();
  stream->AddReader(session.get());
  stream_sessions_[stream.get()].insert(session.get());
  sessions_[session->id] = session;
  stat_sessions_ = static_cast<int>(sessions_.size());
  return session;
}

void QZRtspServer::Impl::DestroySession(const std::string& id) {
  auto it = sessions_.find(id);
  if (it == sessions_.end()) {
    return;
  }
  it->second->stream->RemoveReader(it->second.get());
  auto readers = stream_sessions_.find(it->second->stream.get());
  readers->second.erase(it->second.get());
  if (readers->second.empty()) {
    stream_sessions_.erase(readers);
  }
  it->second->SetState(RtspSession::State::kInit);
  sessions_.erase(it);
  stat_sessions_ = static_cast<int>(sessions_.size());
}

const std::set<RtspSession*>& QZRtspServer::Impl::SessionsOf(const RtspStream& stream) const {
  static const std::set<RtspSession*> kNone;
  auto it = stream_sessions_.find(&stream);
  return it == stream_sessions_.end() ? kNone : it->second;
}

std::shared_ptr<RtspSession> QZRtspServer::Impl::FindSession(const std::string& id) {
  auto it = sessions_.find(id);
  return it == sessions_.end() ? nullptr : it->second;
}

void QZRtspServer::Impl::RemoveConnection(RtspConnection* connection) {
  for (auto it = connections_.begin(); it != connections_.end(); ++it) {
    if (it->get() == connection) {
      connections_.erase(it);
      break;
    }
  }
  stat_connections_ = static_cast<int>(connections_.size());
}

void QZRtspServer::Impl::DoAccept() {
  acceptor_->async_accept([this](const asio::error_code& ec, asio::ip::tcp::socket socket) {
    if (ec == asio::error::operation_aborted || !acceptor_->is_open()) {
      return;
    }
    if (ec) {
      // Out of file descriptors or a passing fault: try again shortly
      // rather than letting the accept loop die.
      auto retry = std::make_shared<asio::steady_timer>(io_, std::chrono::milliseconds(100));
      retry->async_wait([this, retry](const asio::error_code& wait_ec) {
        if (!wait_ec && acceptor_ && acceptor_->is_open()) {
          DoAccept();
        }
      });
      return;
    }
    const bool over_limit = static_cast<int>(connections_.size()) >= options_.max_clients;
    auto connection = std::make_shared<RtspConnection>(*this, std::move(socket), over_limit);
    connections_.insert(connection);
    stat_connections_ = static_cast<int>(connections_.size());
    connection->Start();
    DoAccept();
  });
}

// ---- media ----------------------------------------------------------------------------

void QZRtspServer::Impl::RunGateBatch(const std::function<void()>& batch) {
  in_gate_batch_ = true;
  batch();
  in_gate_batch_ = false;
  if (kicks_.empty()) {
    return;
  }
  // Each connection once, however many of the batch's records it got.
  std::vector<std::shared_ptr<RtspConnection>> kicks;
  kicks.swap(kicks_);
  std::sort(kicks.begin(), kicks.end());
  kicks.erase(std::unique(kicks.begin(), kicks.end()), kicks.end());
  kicking_ = true;
  for (auto& connection : kicks) {
    connection->KickWrite();
  }
  kicking_ = false;
  // The writes just made settle here, one scan per stream.
  std::vector<std::shared_ptr<RtspStream>> settle;
  settle.swap(settle_after_kicks_);
  for (auto& stream : settle) {
    stream->settle_scheduled = false;
    SettleWrites(*stream);
  }
}

void QZRtspServer::Impl::OnStreamPackets(RtspStream& stream) {
  std::vector<std::shared_ptr<RtspSession>> sessions;
  for (RtspSession* session : SessionsOf(stream)) {
    if (session->state == RtspSession::State::kPlaying) {
      sessions.push_back(session->shared_from_this());
    }
  }
  // The UDP clients' datagrams of this record go out together: one
  // sendmmsg() per 64 datagrams across all clients.
  UdpBatch batch = NewUdpBatch();
  for (auto& session : sessions) {
    Pump(*session, &batch);
  }
  batch.Flush();
  SettleWrites(stream);
}

void QZRtspServer::Impl::ScheduleSettle(RtspStream& stream) {
  if (stream.settle_scheduled) {
    return;
  }
  stream.settle_scheduled = true;
  if (kicking_) {
    settle_after_kicks_.push_back(stream.shared_from_this());
    return;
  }
  std::weak_ptr<RtspStream> weak = stream.shared_from_this();
  asio::post(io_, [this, weak] {
    if (auto s = weak.lock()) {
      s->settle_scheduled = false;
      SettleWrites(*s);
    }
  });
}

void QZRtspServer::Impl::SettleWrites(RtspStream& stream) {
  if (!stream.has_unwritten()) {
    return;
  }
  uint64_t written_by_all = UINT64_MAX;
  for (RtspSession* session : SessionsOf(stream)) {
    if (session->state != RtspSession::State::kPlaying || session->waiting_key) {
      continue;
    }
    session->live = session->live || session->written_index >= stream.end_index();
    if (session->live) {
      written_by_all = std::min(written_by_all, session->written_index);
    }
  }
  if (written_by_all == UINT64_MAX) {
    stream.ForgetUnwritten();
    return;
  }
  stream.SettleWritten(written_by_all, stream.NowUs());
}

UdpBatch QZRtspServer::Impl::NewUdpBatch() {
  return UdpBatch(udp_rtp_->native_handle(), &udp_gso_, [this](void* tag, size_t size, bool sent) {
    RtspSession& session = *static_cast<RtspSession*>(tag);
    if (sent) {
      CountSent(session, size, 1);
    } else {
      CountDropped(session, RtspCounters::Drop::kSocketFull, 1);
    }
  });
}

void QZRtspServer::Impl::Resync(RtspSession& session) {
  RtspStream& stream = *session.stream;
  if (session.waiting_key) {
    if (stream.has_key_frame() && stream.last_key_index() >= session.read_index) {
      session.read_index = stream.last_key_index();
      session.waiting_key = false;
    }
    return;
  }
  if (session.read_index < stream.begin_index()) {
    // What this client had not read yet is gone: it skips ahead to the
    // latest key frame rather than to the middle of a picture.
    CountDropped(session, RtspCounters::Drop::kSlowReader,
                 stream.begin_index() - session.read_index);
    if (stream.has_key_frame()) {
      session.read_index = stream.last_key_index();
    } else {
      session.read_index = stream.end_index();
      session.waiting_key = stream.has_video() && session.tracks[0].setup;
    }
    if (stream.has_video()) {
      RequestKeyFrame(stream);
    }
  }
}

void QZRtspServer::Impl::Pump(RtspSession& session, UdpBatch* batch) {
  if (session.state != RtspSession::State::kPlaying) {
    return;
  }
  Resync(session);
  if (session.waiting_key) {
    return;
  }
  SendFirstReports(session);
  if (session.HasTcpTrack()) {
    if (auto connection = session.connection.lock()) {
      if (in_gate_batch_) {
        kicks_.push_back(std::move(connection));  // written when the batch is done
      } else {
        connection->KickWrite();
      }
    }
    return;
  }
  if (batch == nullptr) {
    UdpBatch own = NewUdpBatch();
    Pump(session, &own);
    return;  // `own` sends what is left as it goes
  }
  RtspStream& stream = *session.stream;
  for (uint64_t i = session.read_index; i < stream.end_index(); ++i) {
    const RtpPacket& packet = *stream.At(i);
    if (session.tracks[packet.track].Delivers(packet.key_frame_start)) {
      batch->Add(UdpDestination(session, packet.track, false), packet.UdpData(), packet.UdpSize(),
                 &session);
    }
  }
  session.read_index = stream.end_index();
  session.written_index = session.read_index;  // the caller flushes the batch next
}

asio::ip::udp::endpoint QZRtspServer::Impl::UdpDestination(const RtspSession& session,
                                                           int track,
                                                           bool rtcp) const {
  const RtspSessionTrack& t = session.tracks[static_cast<size_t>(track)];
  const asio::ip::udp::endpoint& endpoint = rtcp ? t.rtcp_endpoint : t.rtp_endpoint;
  if (udp_v6_ && endpoint.address().is_v4()) {
    // The dual-stack socket reaches IPv4 clients at their mapped address.
    return asio::ip::udp::endpoint(
        asio::ip::make_address_v6(asio::ip::v4_mapped, endpoint.address().to_v4()),
        endpoint.port());
  }
  return endpoint;
}

void QZRtspServer::Impl::SendUdp(RtspSession& session,
                                 int track,
                                 const uint8_t* data,
                                 size_t size,
                                 bool rtcp) {
  asio::ip::udp::socket* socket = rtcp ? udp_rtcp_.get() : udp_rtp_.get();
  asio::error_code ec;
  socket->send_to(asio::buffer(data, size), UdpDestination(session, track, rtcp), 0, ec);
  if (ec) {
    CountDropped(session, RtspCounters::Drop::kSocketFull, 1);
    return;
  }
  CountSent(session, size, 1);
}

void QZRtspServer::Impl::CountSent(RtspSession& session, size_t bytes, size_t packets) {
  session.bytes_sent += bytes;
  session.packets_sent += packets;
  session.stream->counters().Sent(bytes, packets);
  totals_.Sent(bytes, packets);
}

void QZRtspServer::Impl::CountTcpWrite(RtspSession& session) {
  ++session.stream->counters().tcp_writes;
  ++totals_.tcp_writes;
}

void QZRtspServer::Impl::CountDropped(RtspSession& session,
                                      RtspCounters::Drop reason,
                                      unsigned long long packets) {
  session.packets_dropped += packets;
  session.stream->counters().Dropped(reason, packets);
  totals_.Dropped(reason, packets);
}

void QZRtspServer::Impl::SendSenderReports(RtspSession& session, long long now_ms) {
  const bool force = now_ms < 0;
  const long long now = force ? NowMs() : now_ms;
  auto connection = session.connection.lock();
  for (size_t t = 0; t < session.tracks.size(); ++t) {
    RtspSessionTrack& track = session.tracks[t];
    if (!track.active || (!force && now - track.last_sr_ms < kSenderReportIntervalMs)) {
      continue;
    }
    // The first report of a PLAY describes the first packet the client gets.
    const std::vector<uint8_t> report =
        session.stream->SenderReport(static_cast<int>(t), force ? &session.read_index : nullptr);
    if (report.empty()) {
      continue;
    }
    track.last_sr_ms = now;
    if (track.tcp) {
      SendInterleavedReport(session, connection.get(), t, report);
    } else {
      SendUdp(session, static_cast<int>(t), report.data(), report.size(), true);
    }
  }
  if (connection) {
    connection->KickWrite();
  }
}

void QZRtspServer::Impl::SendInterleavedReport(RtspSession& session,
                                               RtspConnection* connection,
                                               size_t track,
                                               const std::vector<uint8_t>& report) {
  if (connection == nullptr) {
    return;
  }
  if (connection->SendInterleaved(static_cast<uint8_t>(session.tracks[track].rtcp_channel),
                                  report)) {
    CountSent(session, report.size() + 4, 1);
  } else {
    CountDropped(session, RtspCounters::Drop::kControlBacklog, 1);
  }
}

void QZRtspServer::Impl::RequestKeyFrame(RtspStream& stream) {
  const long long now = NowMs();
  if (!options_.on_key_frame_request || now - stream.last_key_request_ms < 1000) {
    return;
  }
  stream.last_key_request_ms = now;
  ++stream.counters().key_frame_requests;
  ++totals_.key_frame_requests;
  // The application is called in a turn of the event loop of its own, with
  // nothing of the server's on the stack: it may call Stop() from there.
  asio::post(io_, [this, name = stream.name()] {
    if (running_.load()) {
      options_.on_key_frame_request(name);
    }
  });
}

// A track whose first packet is about to reach the client gets its sender
// report first, anchored at that packet: clients such as FFmpeg time a track
// by its own first packet until a report arrives and re-anchor on it, so a
// report that came only seconds later would make their clock jump.
void QZRtspServer::Impl::SendFirstReports(RtspSession& session) {
  auto connection = session.connection.lock();
  for (size_t t = 0; t < session.tracks.size(); ++t) {
    RtspSessionTrack& track = session.tracks[t];
    if (!track.active || track.last_sr_ms != 0) {
      continue;
    }
    const std::vector<uint8_t> report =
        session.stream->SenderReport(static_cast<int>(t), &session.read_index);
    if (report.empty()) {
      continue;
    }
    track.last_sr_ms = NowMs();
    if (track.tcp) {
      SendInterleavedReport(session, connection.get(), t, report);
    } else {
      SendUdp(session, static_cast<int>(t), report.data(), report.size(), true);
    }
  }
}

void QZRtspServer::Impl::ReceiveRtcp(asio::ip::udp::socket& socket, int which) {
  socket.async_receive_from(
      asio::buffer(rtcp_buffer_[which]), rtcp_sender_[which],
      [this, &socket, which](const asio::error_code& ec, size_t) {
        if (ec == asio::error::operation_aborted || !socket.is_open()) {
          return;
        }
        if (!ec) {
          // Receiver reports (and NAT keep-alives) renew the sender's session.
          const asio::ip::udp::endpoint& from = rtcp_sender_[which];
          for (auto& entry : sessions_) {
            for (const RtspSessionTrack& t : entry.second->tracks) {
              if (t.setup && !t.tcp &&
                  (which == 1 ? t.rtcp_endpoint : t.rtp_endpoint).port() == from.port()) {
                entry.second->last_activity_ms = NowMs();
              }
            }
          }
        }
        ReceiveRtcp(socket, which);
      });
}

void QZRtspServer::Impl::OnTick() {
  const long long now = NowMs();
  std::vector<std::shared_ptr<RtspConnection>> to_close;
  std::vector<std::string> expired;
  int playing = 0;
  std::map<RtspStream*, int> playing_per_stream;
  for (auto& entry : sessions_) {
    RtspSession& session = *entry.second;
    if (now - session.last_activity_ms > options_.session_timeout_s * 1000LL) {
      expired.push_back(entry.first);
      continue;
    }
    if (session.state == RtspSession::State::kPlaying) {
      ++playing;
      ++playing_per_stream[session.stream.get()];
      SendSenderReports(session, now);
    }
  }
  {
    std::lock_guard<std::mutex> lock(streams_mutex_);
    for (auto& entry : streams_) {
      auto it = playing_per_stream.find(entry.second.get());
      entry.second->set_playing_count(it == playing_per_stream.end() ? 0 : it->second);
    }
  }
  // An expired session ends alone: its connection and the connection's
  // other sessions stay (the connection's own idle limit applies later).
  for (const std::string& id : expired) {
    std::shared_ptr<RtspSession> session = FindSession(id);
    if (auto connection = session->connection.lock()) {
      connection->ForgetSession(id);
    }
    DestroySession(id);
  }
  for (auto& connection : connections_) {
    connection->SizeSendBuffer(options_.tcp_send_buffer_ms);
    const long long started = connection->request_started_ms();
    if ((!connection->has_sessions() &&
         now - connection->last_activity_ms() > options_.idle_timeout_s * 1000LL) ||
        (started != 0 && now - started > options_.request_timeout_ms)) {
      ++connections_refused_;
      to_close.push_back(connection);
    }
  }
  for (auto& connection : to_close) {
    connection->Close();
  }
  stat_playing_ = playing;
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
  stats.sessions = stat_sessions_.load();
  stats.playing = stat_playing_.load();
  {
    std::lock_guard<std::mutex> lock(streams_mutex_);
    stats.streams = static_cast<int>(streams_.size());
    for (const auto& entry : streams_) {
      stats.stream_stats.push_back(entry.second->Stats());
    }
  }
  stats.bytes_sent = totals_.bytes_sent.load();
  stats.packets_sent = totals_.packets_sent.load();
  stats.tcp_writes = totals_.tcp_writes.load();
  stats.dropped = totals_.Drops();
  stats.packets_dropped = stats.dropped.total();
  stats.key_frame_requests = totals_.key_frame_requests.load();
  stats.connections_refused = connections_refused_.load();
  return stats;
}

}  // namespace qz_rtsp_internal_server
