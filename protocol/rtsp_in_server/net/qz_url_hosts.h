// Which of the device's addresses the server's URLs name, best first. No
// system calls here: ListInterfaceAddresses (qz_socket_setup.h) lists the
// interfaces, RankUrlHosts orders them.
#ifndef PROTOCOL_RTSP_IN_SERVER_NET_QZ_URL_HOSTS_H_
#define PROTOCOL_RTSP_IN_SERVER_NET_QZ_URL_HOSTS_H_

#include <asio/ip/address.hpp>
#include <string>
#include <vector>

namespace qz_rtsp_internal_server {

// One address of one network interface.
struct InterfaceAddress {
  enum Flag : unsigned {
    kUp = 1u << 0,  // up and carrying traffic
    kLoopback = 1u << 1,
    kPointToPoint = 1u << 2,  // a tunnel or a cellular link: no LAN behind it
  };
  std::string name;  // "wlan0", "en0", "rmnet_data0", ...
  unsigned flags = 0;
  asio::ip::address address;
};

// The hosts a viewer may reach the device at when the server listens on
// every interface, best first, ordered by:
//   1. not loopback before loopback;
//   2. the interface: Wi-Fi and Ethernet (wl*, en*, eth*, and hotspots:
//      swlan*, ap*), then other names, then virtual bridges of containers
//      and virtual machines (docker*, br-*, virbr*, veth*, vmnet*,
//      vboxnet*), then cellular links (rmnet*, ccmni*, pdp_ip*, wwan*,
//      wwp*), tunnels (tun*, utun*, tap*, ppp*, ipsec*, wg*, and v4-*, an
//      IPv4-over-IPv6 translator) and any point-to-point link: a phone's
//      cellular address is behind the carrier's NAT and a VPN's is not on
//      the viewer's LAN;
//   3. the address: private IPv4 (10/8, 172.16/12, 192.168/16), then other
//      IPv4, then carrier-grade NAT (100.64/10), then IPv6 (global and
//      unique local);
//   4. the order listed.
// Left out: interfaces that are down, and addresses a URL cannot use:
// link-local ones (169.254/16 and fe80::/10, which need a zone),
// 192.0.0.0/29 (a translator's own), unspecified and multicast ones, and
// repeats. IPv6 hosts come without brackets ("2001:db8::1"). Never empty:
// "127.0.0.1" when nothing is left.
std::vector<std::string> RankUrlHosts(const std::vector<InterfaceAddress>& interfaces);

}  // namespace qz_rtsp_internal_server

#endif  // PROTOCOL_RTSP_IN_SERVER_NET_QZ_URL_HOSTS_H_
