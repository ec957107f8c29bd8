// Opening the server's sockets, and the address the server's URLs name.
// This is where the system's socket calls differ between platforms; the
// rest of the server sees Asio sockets.
#ifndef PROTOCOL_RTSP_IN_SERVER_NET_QZ_SOCKET_SETUP_H_
#define PROTOCOL_RTSP_IN_SERVER_NET_QZ_SOCKET_SETUP_H_

#include <asio.hpp>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

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

// The first IPv4 address of an interface that is up and not loopback, for
// URLs when the server listens on every interface; 127.0.0.1 when there is
// none (or the platform cannot list its interfaces).
std::string FirstNonLoopbackAddress();

}  // namespace qz_rtsp_internal_server

#endif  // PROTOCOL_RTSP_IN_SERVER_NET_QZ_SOCKET_SETUP_H_
