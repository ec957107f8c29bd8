#include "protocol/rtsp_in_server/net/qz_socket_setup.h"

#include <algorithm>

#include <cstring>

// getifaddrs: every POSIX system the library is for, Android from API 24.
#if (defined(__unix__) || defined(__APPLE__)) && (!defined(__ANDROID__) || __ANDROID_API__ >= 24)
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

void SizeSendBuffer(asio::ip::tcp::socket& socket,
                    size_t bytes_per_second,
                    int ms,
                    size_t& current) {
  constexpr size_t kMinSendBuffer = 64 * 1024;
  constexpr size_t kMaxSendBuffer = 2 * 1024 * 1024;
  const size_t want =
      std::clamp(bytes_per_second * static_cast<size_t>(ms) / 1000, kMinSendBuffer, kMaxSendBuffer);
  if (current != 0 && want * 4 > current * 3 && want * 4 < current * 5) {
    return;  // within 25 %
  }
  asio::error_code ec;
  socket.set_option(asio::socket_base::send_buffer_size(static_cast<int>(want)), ec);
  if (!ec) {
    current = want;
  }
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

bool OpenMulticastSender(asio::io_context& io,
                         const asio::ip::address& at,
                         int ttl,
                         std::unique_ptr<asio::ip::udp::socket>& socket,
                         std::string& why) {
  asio::ip::address_v4 local = asio::ip::address_v4::any();
  if (at.is_v4()) {
    local = at.to_v4();
  } else if (at.to_v6().is_v4_mapped()) {
    local = asio::ip::make_address_v4(asio::ip::v4_mapped, at.to_v6());
  } else if (!at.is_unspecified()) {
    why = "multicast is IPv4 only, and the server is bound to " + at.to_string();
    return false;
  }
  auto s = std::make_unique<asio::ip::udp::socket>(io);
  asio::error_code ec;
  s->open(asio::ip::udp::v4(), ec);
  if (!ec && !local.is_unspecified()) {
    s->set_option(asio::ip::multicast::outbound_interface(local), ec);
  }
  if (!ec) {
    s->bind(asio::ip::udp::endpoint(local, 0), ec);
  }
  if (!ec) {
    s->set_option(asio::ip::multicast::hops(ttl), ec);
  }
  if (!ec) {
    s->set_option(asio::ip::multicast::enable_loopback(true), ec);
  }
  if (!ec) {
    s->non_blocking(true, ec);
  }
  if (ec) {
    why = "multicast socket: " + ec.message();
    return false;
  }
  s->set_option(asio::socket_base::send_buffer_size(1 << 20), ec);  // as the RTP socket's
  socket = std::move(s);
  return true;
}

std::vector<InterfaceAddress> ListInterfaceAddresses() {
  std::vector<InterfaceAddress> result;
#ifdef QZ_HAVE_GETIFADDRS
  ifaddrs* list = nullptr;
  if (getifaddrs(&list) != 0) {
    return result;
  }
  for (ifaddrs* it = list; it != nullptr; it = it->ifa_next) {
    if (it->ifa_addr == nullptr) {
      continue;
    }
    InterfaceAddress entry;
    if (it->ifa_addr->sa_family == AF_INET) {
      const auto* in = reinterpret_cast<const sockaddr_in*>(it->ifa_addr);
      entry.address = asio::ip::address_v4(ntohl(in->sin_addr.s_addr));
    } else if (it->ifa_addr->sa_family == AF_INET6) {
      // Without the zone: link-local addresses, the only ones that need it,
      // are never put into a URL.
      const auto* in6 = reinterpret_cast<const sockaddr_in6*>(it->ifa_addr);
      asio::ip::address_v6::bytes_type bytes;
      std::memcpy(bytes.data(), in6->sin6_addr.s6_addr, bytes.size());
      entry.address = asio::ip::address_v6(bytes);
    } else {
      continue;  // link-layer and other families
    }
    entry.name = it->ifa_name != nullptr ? it->ifa_name : "";
    const unsigned flags = it->ifa_flags;
    if ((flags & IFF_UP) != 0 && (flags & IFF_RUNNING) != 0) {
      entry.flags |= InterfaceAddress::kUp;
    }
    if ((flags & IFF_LOOPBACK) != 0) {
      entry.flags |= InterfaceAddress::kLoopback;
    }
    if ((flags & IFF_POINTOPOINT) != 0) {
      entry.flags |= InterfaceAddress::kPointToPoint;
    }
    result.push_back(std::move(entry));
  }
  freeifaddrs(list);
#endif
  return result;
}

}  // namespace qz_rtsp_internal_server
