#include "protocol/rtsp_in_server/net/qz_udp_demux.h"

namespace qz_rtsp_internal_server {

asio::ip::address PlainAddress(const asio::ip::address& address) {
  return address.is_v6() && address.to_v6().is_v4_mapped()
             ? asio::ip::address(asio::ip::make_address_v4(asio::ip::v4_mapped, address.to_v6()))
             : address;
}

asio::ip::udp::endpoint UdpDemux::Key(const asio::ip::udp::endpoint& endpoint) {
  return asio::ip::udp::endpoint(PlainAddress(endpoint.address()), endpoint.port());
}

void UdpDemux::Add(const asio::ip::udp::endpoint& from, const std::string& owner) {
  routes_[Key(from)] = owner;
}

void UdpDemux::Remove(const asio::ip::udp::endpoint& from, const std::string& owner) {
  auto it = routes_.find(Key(from));
  if (it != routes_.end() && it->second == owner) {
    routes_.erase(it);
  }
}

const std::string* UdpDemux::Find(const asio::ip::udp::endpoint& from) const {
  auto it = routes_.find(Key(from));
  return it == routes_.end() ? nullptr : &it->second;
}

}  // namespace qz_rtsp_internal_server
