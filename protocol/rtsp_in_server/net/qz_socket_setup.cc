#include "protocol/rtsp_in_server/net/qz_socket_setup.h"

#if defined(__unix__) || defined(__APPLE__)
#include <arpa/inet.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>
#define QZ_HAVE_GETIFADDRS 1
#endif

namespace qz_rtsp_internal_server {

bool OpenRtspListener(asio::ip::tcp::acceptor& acceptor,
                      const std::string& bind_address,
                      uint16_t port,
                      std::string& why) {
  asio::error_code ec;
  asio::ip::tcp::endpoint endpoint;
  if (bind_address.empty()) {
    endpoint = asio::ip::tcp::endpoint(asio::ip::tcp::v6(), port);
  } else {
    const asio::ip::address address = asio::ip::make_address(bind_address, ec);
    if (ec) {
      why = "not an IP address: " + ec.message();
      return false;
    }
    endpoint = asio::ip::tcp::endpoint(address, port);
  }
  acceptor.open(endpoint.protocol(), ec);
  if (ec && bind_address.empty()) {
    endpoint = asio::ip::tcp::endpoint(asio::ip::tcp::v4(), port);  // no IPv6 here
    acceptor.open(endpoint.protocol(), ec);
  }
  if (ec) {
    why = "socket: " + ec.message();
    return false;
  }
  if (endpoint.protocol() == asio::ip::tcp::v6()) {
    acceptor.set_option(asio::ip::v6_only(false), ec);  // IPv4 clients too
  }
  acceptor.set_option(asio::ip::tcp::acceptor::reuse_address(true), ec);
  acceptor.bind(endpoint, ec);
  if (ec) {
    why = "bind: " + ec.message();
    return false;
  }
  acceptor.listen(asio::socket_base::max_listen_connections, ec);
  if (ec) {
    why = "listen: " + ec.message();
    return false;
  }
  return true;
}

bool OpenUdpPortPair(asio::io_context& io,
                     const asio::ip::address& at,
                     const std::function<uint32_t()>& random,
                     UdpPortPair& pair) {
  for (int attempt = 0; attempt < 64; ++attempt) {
    const uint16_t port = static_cast<uint16_t>(20000 + 2 * (random() % 20000));
    asio::error_code ec;
    auto rtp = std::make_unique<asio::ip::udp::socket>(io);
    auto rtcp = std::make_unique<asio::ip::udp::socket>(io);
    const bool any = at.is_unspecified();
    asio::ip::udp protocol = any || at.is_v6() ? asio::ip::udp::v6() : asio::ip::udp::v4();
    rtp->open(protocol, ec);
    if (ec && any) {
      protocol = asio::ip::udp::v4();
      rtp->open(protocol, ec);
    }
    if (ec) {
      return false;
    }
    rtcp->open(protocol, ec);
    if (any && protocol == asio::ip::udp::v6()) {
      rtp->set_option(asio::ip::v6_only(false), ec);
      rtcp->set_option(asio::ip::v6_only(false), ec);
    }
    const auto endpoint = [&](int p) {
      return any ? asio::ip::udp::endpoint(protocol, static_cast<uint16_t>(p))
                 : asio::ip::udp::endpoint(at, static_cast<uint16_t>(p));
    };
    rtp->bind(endpoint(port), ec);
    if (ec) {
      continue;
    }
    rtcp->bind(endpoint(port + 1), ec);
    if (ec) {
      continue;
    }
    rtp->non_blocking(true, ec);
    rtcp->non_blocking(true, ec);
    rtp->set_option(asio::socket_base::send_buffer_size(1 << 20), ec);
    pair.rtp = std::move(rtp);
    pair.rtcp = std::move(rtcp);
    pair.rtp_port = port;
    return true;
  }
  return false;
}

std::string FirstNonLoopbackAddress() {
  std::string result = "127.0.0.1";
#ifdef QZ_HAVE_GETIFADDRS
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
#endif
  return result;
}

}  // namespace qz_rtsp_internal_server
