// Opening the server's sockets, and listing the device's addresses for the
// server's URLs.
// This is where the system's socket calls differ between platforms; the
// rest of the server sees Asio sockets.
#ifndef PROTOCOL_RTSP_IN_SERVER_NET_QZ_SOCKET_SETUP_H_
#define PROTOCOL_RTSP_IN_SERVER_NET_QZ_SOCKET_SETUP_H_

#include <asio.hpp>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "protocol/rtsp_in_server/net/qz_url_hosts.h"

namespace qz_rtsp_internal_server {

// Listens for RTSP on `port` (0: any free one) at `bind_address`, or, when
// it is empty, on every IPv6 and IPv4 interface (IPv4 only where the system
// has no IPv6). False with the system's reason in `why`.
bool OpenRtspListener(asio::ip::tcp::acceptor& acceptor,
                      const std::string& bind_address,
                      uint16_t port,
                      std::string& why);

// The server's UDP sockets: RTP on an even port and RTCP on the next one,
// dual-stack where the system has IPv6, non-blocking (media is never queued
// behind a slow network: a full socket buffer drops that packet for that
// client). Ports are drawn from 20000-59999 by `random`.
struct UdpPortPair {
  std::unique_ptr<asio::ip::udp::socket> rtp;
  std::unique_ptr<asio::ip::udp::socket> rtcp;
  uint16_t rtp_port = 0;
};
// The sockets are bound to `at`, the address the RTSP listener is bound to:
// a server that listens on one interface only does not take datagrams on
// the others. Unspecified: every IPv4 and IPv6 interface.
bool OpenUdpPortPair(asio::io_context& io,
                     const asio::ip::address& at,
                     const std::function<uint32_t()>& random,
                     UdpPortPair& pair);

// Sizes a TCP socket's kernel send buffer to hold about `ms` of a stream of
// `bytes_per_second` (64 KiB to 2 MiB), so that a reader that cannot keep
// up falls behind in the stream's packet ring, where it is cut back to a
// key frame, not in a deep socket buffer holding seconds of stale video.
// `current` is what was set last (0: nothing yet); a change within 25 % is
// not made. Linux doubles the value for its bookkeeping and reports that
// back, so the value asked for is what `current` keeps.
void SizeSendBuffer(asio::ip::tcp::socket& socket,
                    size_t bytes_per_second,
                    int ms,
                    size_t& current);

// The socket multicast groups are sent from: IPv4, non-blocking, its
// packets let through `ttl` routers (IP_MULTICAST_TTL), looped back to
// receivers on this device (IP_MULTICAST_LOOP: a viewer on the phone
// itself, and tests on the loopback interface). With `at` an IPv4 address
// (the one the RTSP listener is bound to), it is bound there and its groups
// leave through that address's interface (IP_MULTICAST_IF); unspecified,
// the system routes them. An IPv6 `at` fails: multicast is IPv4 only. False
// with the reason in `why`.
bool OpenMulticastSender(asio::io_context& io,
                         const asio::ip::address& at,
                         int ttl,
                         std::unique_ptr<asio::ip::udp::socket>& socket,
                         std::string& why);

// Every IPv4 and IPv6 address of the device's interfaces, in the system's
// order, for RankUrlHosts; empty where the platform cannot list them. An
// interface is up when the system says it is up and running (an Ethernet
// port without a cable is not).
std::vector<InterfaceAddress> ListInterfaceAddresses();

}  // namespace qz_rtsp_internal_server

#endif  // PROTOCOL_RTSP_IN_SERVER_NET_QZ_SOCKET_SETUP_H_
