#include "protocol/rtsp_in_server/net/qz_url_hosts.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <set>
#include <tuple>

namespace qz_rtsp_internal_server {
namespace {

// Interface kinds, best first.
enum Kind { kLan, kOtherKind, kVirtual, kRemote };

bool HasPrefix(const std::string& name, const std::vector<const char*>& prefixes) {
  for (const char* prefix : prefixes) {
    if (name.compare(0, std::strlen(prefix), prefix) == 0) {
      return true;
    }
  }
  return false;
}

Kind KindOf(const InterfaceAddress& entry) {
  static const std::vector<const char*> kRemoteNames = {
      "rmnet", "ccmni", "pdp_ip", "wwan", "wwp",  // cellular
      "tun",   "utun",  "tap",    "ppp",  "ipsec", "wg", "v4-"};
  static const std::vector<const char*> kLanNames = {"wl", "en", "eth", "swlan", "ap"};
  static const std::vector<const char*> kVirtualNames = {"docker", "br-",   "virbr",
                                                         "veth",   "vmnet", "vboxnet"};
  if ((entry.flags & InterfaceAddress::kPointToPoint) != 0 || HasPrefix(entry.name, kRemoteNames)) {
    return kRemote;
  }
  if (HasPrefix(entry.name, kLanNames)) {
    return kLan;
  }
  return HasPrefix(entry.name, kVirtualNames) ? kVirtual : kOtherKind;
}

// Address classes, best first.
int ClassOf(const asio::ip::address& address) {
  if (address.is_v6()) {
    return 3;
  }
  const uint32_t v4 = address.to_v4().to_uint();
  if ((v4 >> 24) == 10 || (v4 >> 20) == ((172u << 4) | 1) || (v4 >> 16) == ((192u << 8) | 168)) {
    return 0;
  }
  return (v4 >> 22) == ((100u << 2) | 1) ? 2 : 1;  // 100.64/10 after other IPv4
}

bool Usable(const InterfaceAddress& entry) {
  const asio::ip::address& address = entry.address;
  if ((entry.flags & InterfaceAddress::kUp) == 0 || address.is_unspecified() ||
      address.is_multicast()) {
    return false;
  }
  if (address.is_v6()) {
    const asio::ip::address_v6 v6 = address.to_v6();
    return !v6.is_link_local() && !v6.is_v4_mapped();
  }
  const uint32_t v4 = address.to_v4().to_uint();
  return (v4 >> 16) != ((169u << 8) | 254) &&  // link-local
         (v4 >> 3) != (0xC0000000u >> 3) &&    // 192.0.0.0/29
         v4 != 0xFFFFFFFFu;
}

}  // namespace

std::vector<std::string> RankUrlHosts(const std::vector<InterfaceAddress>& interfaces) {
  // (loopback, kind, class, position) orders the candidates.
  using Key = std::tuple<bool, int, int, size_t>;
  std::vector<std::pair<Key, std::string>> ranked;
  for (size_t i = 0; i < interfaces.size(); ++i) {
    const InterfaceAddress& entry = interfaces[i];
    if (!Usable(entry)) {
      continue;
    }
    std::string host;
    if (entry.address.is_v6()) {
      asio::ip::address_v6 v6 = entry.address.to_v6();
      v6.scope_id(0);  // a zone has no place in a URL's host
      host = v6.to_string();
    } else {
      host = entry.address.to_string();
    }
    const bool loopback =
        (entry.flags & InterfaceAddress::kLoopback) != 0 || entry.address.is_loopback();
    ranked.emplace_back(Key(loopback, KindOf(entry), ClassOf(entry.address), i), std::move(host));
  }
  std::sort(ranked.begin(), ranked.end());
  std::vector<std::string> hosts;
  std::set<std::string> seen;
  for (auto& candidate : ranked) {
    if (seen.insert(candidate.second).second) {
      hosts.push_back(std::move(candidate.second));
    }
  }
  if (hosts.empty()) {
    hosts.push_back("127.0.0.1");
  }
  return hosts;
}

}  // namespace qz_rtsp_internal_server
