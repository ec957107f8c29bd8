// The hosts a server's URLs name, chosen among the device's interfaces.
#include "protocol/rtsp_in_server/net/qz_url_hosts.h"

#include <algorithm>

#include "gtest/gtest.h"
#include "protocol/rtsp_in_server/net/qz_socket_setup.h"

namespace qz_rtsp_internal_server {
namespace {

constexpr unsigned kUp = InterfaceAddress::kUp;
constexpr unsigned kLo = kUp | InterfaceAddress::kLoopback;
constexpr unsigned kPtp = kUp | InterfaceAddress::kPointToPoint;

InterfaceAddress If(const char* name, const char* address, unsigned flags = kUp) {
  return InterfaceAddress{name, flags, asio::ip::make_address(address)};
}

TEST(UrlHostsTest, RanksWhatAViewerCanReachFirst) {
  struct Case {
    const char* what;
    std::vector<InterfaceAddress> interfaces;
    std::vector<std::string> hosts;
  };
  const Case cases[] = {
      {"phone on Wi-Fi and cellular (whose 10/8 address is the carrier's)",
       {If("lo", "127.0.0.1", kLo), If("rmnet_data0", "10.141.7.2"),
        If("rmnet_data0", "2001:db8:c::7"), If("wlan0", "192.168.1.20"), If("wlan0", "fe80::1c2"),
        If("wlan0", "2001:db8:1::20"), If("lo", "::1", kLo)},
       {"192.168.1.20", "2001:db8:1::20", "10.141.7.2", "2001:db8:c::7", "127.0.0.1", "::1"}},
      {"cellular only: carrier-grade NAT after a public address",
       {If("pdp_ip0", "100.72.1.9", kPtp), If("pdp_ip1", "203.0.113.4", kPtp),
        If("lo0", "127.0.0.1", kLo)},
       {"203.0.113.4", "100.72.1.9", "127.0.0.1"}},
      {"VPN up over Wi-Fi",
       {If("tun0", "10.8.0.2", kPtp), If("wlan0", "192.168.1.20"), If("utun2", "fd00:a::2", kPtp)},
       {"192.168.1.20", "10.8.0.2", "fd00:a::2"}},
      {"a point-to-point link of any name after an interface of unknown kind",
       {If("vpn0", "10.9.0.2", kPtp), If("usb0", "192.168.42.129")},
       {"192.168.42.129", "10.9.0.2"}},
      {"IPv6-only Wi-Fi, with an IPv4 translator",
       {If("v4-wlan0", "192.0.0.4"), If("wlan0", "fe80::5"), If("wlan0", "2001:db8:1::5"),
        If("wlan0", "fd12:3456::5"), If("lo", "127.0.0.1", kLo)},
       {"2001:db8:1::5", "fd12:3456::5", "127.0.0.1"}},
      {"desktop: Ethernet, container and virtual machine bridges",
       {If("docker0", "172.17.0.1"), If("virbr0", "192.168.122.1"), If("enp3s0", "192.168.0.10"),
        If("enp3s0", "2001:db8:2::10"), If("br-5f2e0c", "172.18.0.1")},
       {"192.168.0.10", "2001:db8:2::10", "172.17.0.1", "192.168.122.1", "172.18.0.1"}},
      {"laptop: Wi-Fi, internet sharing, a VM network, a VPN",
       {If("lo0", "127.0.0.1", kLo), If("lo0", "::1", kLo), If("lo0", "fe80::1", kLo),
        If("vmnet8", "172.16.5.1"), If("utun3", "10.20.0.3", kPtp), If("en0", "192.168.1.5"),
        If("awdl0", "fe80::aa"), If("bridge100", "192.168.2.1")},
       {"192.168.1.5", "192.168.2.1", "172.16.5.1", "10.20.0.3", "127.0.0.1", "::1"}},
      {"phone sharing its cellular link as a hotspot",
       {If("rmnet_data0", "100.80.2.2"), If("swlan0", "192.168.43.1")},
       {"192.168.43.1", "100.80.2.2"}},
      {"address classes on one interface, at their edges",
       {If("eth0", "2001:db8::9"), If("eth0", "100.64.0.9"), If("eth0", "203.0.113.9"),
        If("eth0", "172.32.0.9"), If("eth0", "100.128.0.1"), If("eth0", "172.31.255.9")},
       {"172.31.255.9", "203.0.113.9", "172.32.0.9", "100.128.0.1", "100.64.0.9", "2001:db8::9"}},
      {"two LAN interfaces as listed, an address on both once",
       {If("eth0", "10.0.0.5"), If("wlan0", "192.168.1.20"), If("wlan0", "10.0.0.5")},
       {"10.0.0.5", "192.168.1.20"}},
      {"Wi-Fi off, link-local and translator addresses only",
       {If("wlan0", "192.168.1.20", 0), If("eth0", "169.254.3.4"), If("eth0", "fe80::3"),
        If("clat4", "192.0.0.7")},
       {"127.0.0.1"}},
      {"only loopback", {If("lo", "127.0.0.1", kLo), If("lo", "::1", kLo)}, {"127.0.0.1", "::1"}},
      {"nothing listed", {}, {"127.0.0.1"}},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(RankUrlHosts(c.interfaces), c.hosts) << c.what;
  }
}

#if defined(__unix__) || defined(__APPLE__)
// Any machine's list holds its loopback interface, up, with 127.0.0.1.
TEST(UrlHostsTest, ListsTheLoopbackInterface) {
  const std::vector<InterfaceAddress> interfaces = ListInterfaceAddresses();
  const auto lo = std::find_if(interfaces.begin(), interfaces.end(), [](const auto& entry) {
    return entry.address == asio::ip::make_address("127.0.0.1");
  });
  ASSERT_NE(lo, interfaces.end());
  EXPECT_FALSE(lo->name.empty());
  EXPECT_EQ(lo->flags & kLo, kLo);
}
#endif

}  // namespace
}  // namespace qz_rtsp_internal_server
