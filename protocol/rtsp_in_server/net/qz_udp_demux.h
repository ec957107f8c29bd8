// Tells UDP senders apart by address and port: the server has one RTP and
// one RTCP socket for every client, so what arrives on them belongs to the
// session whose client sends from that exact address and port. Keyed by
// both because clients behind one NAT share an address, and on one host
// every client shares it. An IPv4 sender seen through a dual-stack socket
// (::ffff:a.b.c.d) is the same key as its plain IPv4 form.
#ifndef PROTOCOL_RTSP_IN_SERVER_NET_QZ_UDP_DEMUX_H_
#define PROTOCOL_RTSP_IN_SERVER_NET_QZ_UDP_DEMUX_H_

#include <asio.hpp>
#include <map>
#include <string>

namespace qz_rtsp_internal_server {

// An IPv4 peer of a dual-stack socket (::ffff:a.b.c.d) as its IPv4 address;
// any other address as it is. What the server compares and shows.
asio::ip::address PlainAddress(const asio::ip::address& address);

class UdpDemux {
 public:
  // Routes `from` to `owner` (a session id); a later Add of the same
  // address and port takes it over.
  void Add(const asio::ip::udp::endpoint& from, const std::string& owner);
  // Removes the route when it still belongs to `owner`.
  void Remove(const asio::ip::udp::endpoint& from, const std::string& owner);
  // The owner of datagrams from `from`, or null.
  const std::string* Find(const asio::ip::udp::endpoint& from) const;
  size_t size() const { return routes_.size(); }

 private:
  static asio::ip::udp::endpoint Key(const asio::ip::udp::endpoint& endpoint);
  std::map<asio::ip::udp::endpoint, std::string> routes_;
};

}  // namespace qz_rtsp_internal_server

#endif  // PROTOCOL_RTSP_IN_SERVER_NET_QZ_UDP_DEMUX_H_
