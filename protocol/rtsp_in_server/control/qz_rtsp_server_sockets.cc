// The server's sockets: the listeners (RTSP, and the HTTP tunnel's and
// TLS's ports when asked for) and the URLs that reach them, the UDP port
// pair, and, on the network thread, accepting and admitting connections
// and receiving what arrives over UDP.
#include <algorithm>

#include "protocol/rtsp_in_server/control/qz_rtsp_server_impl.h"
#include "protocol/rtsp_in_server/net/qz_socket_setup.h"
#include "utility/qz_log.h"

namespace qz_rtsp_internal_server {
namespace {

using qz_utility::LogFormat;

// Refused connections waiting to read the request their 503 answers; more
// are closed without an answer.
constexpr int kMaxRefusing = 16;

}  // namespace

// ---- listeners and URLs -------------------------------------------------------------

bool QZRtspServer::Impl::Listen(std::string& why) {
  acceptor_.reset(new asio::ip::tcp::acceptor(io_));
  if (!OpenRtspListener(*acceptor_, options_.bind_address, options_.port, why)) {
    return false;
  }
  asio::error_code ec;
  const asio::ip::tcp::endpoint endpoint = acceptor_->local_endpoint(ec);
  port_.store(endpoint.port());
  if (!ListenAlso("HTTP tunnel", options_.http_tunnel_port, http_acceptor_, http_port_, why) ||
      !ListenAlso("TLS", options_.tls_port, tls_acceptor_, tls_port_, why)) {
    return false;
  }
  {
    std::lock_guard<std::mutex> lock(url_mutex_);
    listen_address_ = endpoint.address();
  }
  RefreshUrlHosts();
  return true;
}

bool QZRtspServer::Impl::ListenAlso(const char* what,
                                    int port,
                                    std::unique_ptr<asio::ip::tcp::acceptor>& acceptor,
                                    std::atomic<uint16_t>& bound,
                                    std::string& why) {
  if (port < 0) {
    return true;
  }
  acceptor.reset(new asio::ip::tcp::acceptor(io_));
  if (port > 65535 ||
      !OpenRtspListener(*acceptor, options_.bind_address, static_cast<uint16_t>(port), why)) {
    why = std::string(what) + " port " + std::to_string(port) + ": " +
          (why.empty() ? "out of range" : why);
    return false;
  }
  asio::error_code ec;
  bound.store(acceptor->local_endpoint(ec).port());
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

std::string QZRtspServer::Impl::UrlFor(const std::string& stream_name) {
  const std::vector<std::string> urls = CandidateUrls(stream_name);
  return urls.empty() ? std::string() : urls.front();
}

std::vector<std::string> QZRtspServer::Impl::CandidateUrls(const std::string& stream_name) {
  return Urls("rtsp", port_.load(), stream_name);
}

std::string QZRtspServer::Impl::TlsUrlFor(const std::string& stream_name) {
  const std::vector<std::string> urls = Urls("rtsps", tls_port_.load(), stream_name);
  return urls.empty() ? std::string() : urls.front();
}

std::vector<std::string> QZRtspServer::Impl::Urls(const char* scheme,
                                                  uint16_t port,
                                                  const std::string& stream_name) {
  std::vector<std::string> urls;
  if (!running_.load() || port == 0) {
    return urls;
  }
  for (std::string host : RefreshUrlHosts()) {
    if (host.find(':') != std::string::npos && host.front() != '[') {
      host = "[" + host + "]";  // an IPv6 address
    }
    urls.push_back(std::string(scheme) + "://" + host + ":" + std::to_string(port) + "/" +
                   stream_name);
  }
  return urls;
}

// ---- network thread -----------------------------------------------------------------

void QZRtspServer::Impl::DoAccept(asio::ip::tcp::acceptor& acceptor, bool sniff, bool tls) {
  acceptor.async_accept(
      [this, &acceptor, sniff, tls](const asio::error_code& ec, asio::ip::tcp::socket socket) {
        if (ec == asio::error::operation_aborted || !acceptor.is_open()) {
          return;
        }
        if (ec) {
          // Out of file descriptors or a passing fault: try again shortly
          // rather than letting the accept loop die. The acceptor lives until
          // the thread is joined, after every timer has been cancelled.
          auto retry = std::make_shared<asio::steady_timer>(io_, std::chrono::milliseconds(100));
          retry->async_wait([this, retry, &acceptor, sniff, tls](const asio::error_code& wait_ec) {
            if (!wait_ec && acceptor.is_open()) {
              DoAccept(acceptor, sniff, tls);
            }
          });
          return;
        }
        Admit(std::move(socket), sniff, tls);
        DoAccept(acceptor, sniff, tls);
      });
}

void QZRtspServer::Impl::Admit(asio::ip::tcp::socket socket, bool sniff, bool tls) {
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
  // A refused TLS client is answered 503 too, inside TLS, within the grace a
  // refused connection has.
  std::unique_ptr<RtspLink> link =
      tls ? tls_->Wrap(std::move(socket)) : MakeTcpLink(std::move(socket));
  if (!link) {
    return;
  }
  auto connection = std::make_shared<RtspConnection>(
      *core_, std::move(link), refused, sniff, [this](RtspConnection* closed) {
        for (auto it = connections_.begin(); it != connections_.end(); ++it) {
          if (it->get() == closed) {
            connections_.erase(it);
            break;
          }
        }
        stat_connections_ = static_cast<int>(connections_.size());
      });
  connection->encrypted = tls;
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

}  // namespace qz_rtsp_internal_server
