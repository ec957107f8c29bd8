// Where the server's UDP datagrams go. The fan-out and the sessions send
// through this interface, so that tests read what would be sent without a
// socket; SocketUdpSink is the server's own, on its RTP and RTCP sockets
// and, for datagrams to a multicast group, its multicast socket.
#ifndef PROTOCOL_RTSP_IN_SERVER_NET_QZ_UDP_SINK_H_
#define PROTOCOL_RTSP_IN_SERVER_NET_QZ_UDP_SINK_H_

#include <asio.hpp>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>

#include "protocol/rtsp_in_server/net/platform/qz_net_platform.h"
#include "protocol/rtsp_in_server/net/qz_udp_batch.h"

namespace qz_rtsp_internal_server {

class UdpSink {
 public:
  // Told of every datagram once its fate is known: the tag it was given
  // with, its size, and whether it left.
  using Result = std::function<void(void* tag, size_t size, bool sent)>;

  virtual ~UdpSink() = default;
  void set_on_result(Result on_result) { on_result_ = std::move(on_result); }

  // A media datagram (RTP port). It may wait to leave with others until
  // Flush(); the bytes must stay valid until then.
  virtual void Add(const asio::ip::udp::endpoint& to,
                   const uint8_t* data,
                   size_t size,
                   void* tag) = 0;
  virtual void Flush() = 0;
  // An RTCP datagram (RTCP port), sent at once.
  virtual void SendRtcp(const asio::ip::udp::endpoint& to,
                        const uint8_t* data,
                        size_t size,
                        void* tag) = 0;

 protected:
  void Report(void* tag, size_t size, bool sent) {
    if (on_result_) {
      on_result_(tag, size, sent);
    }
  }

 private:
  Result on_result_;
};

// On two non-blocking sockets: media batched (see UdpBatch), RTCP one by
// one. A dual-stack IPv6 socket reaches IPv4 clients at their mapped
// address. Datagrams to a multicast address go through `multicast` instead
// (batched too), or are dropped without one. The sockets must outlive the
// sink.
class SocketUdpSink : public UdpSink {
 public:
  SocketUdpSink(asio::ip::udp::socket& rtp,
                asio::ip::udp::socket& rtcp,
                bool gso,
                asio::ip::udp::socket* multicast = nullptr);

  void Add(const asio::ip::udp::endpoint& to, const uint8_t* data, size_t size, void* tag) override;
  void Flush() override;
  void SendRtcp(const asio::ip::udp::endpoint& to,
                const uint8_t* data,
                size_t size,
                void* tag) override;

  // How media leaves, for the log: the platform's path, GSO on or off.
  const char* send_path() const { return DescribeUdpSendPath(gso_); }

 private:
  asio::ip::udp::endpoint Destination(const asio::ip::udp::endpoint& to) const;

  asio::ip::udp::socket& rtcp_;
  bool v6_;
  bool gso_;  // cleared by the batch when the kernel refuses to segment
  UdpBatch batch_;
  asio::ip::udp::socket* multicast_;
  bool multicast_gso_;
  std::unique_ptr<UdpBatch> multicast_batch_;  // null without a multicast socket
};

}  // namespace qz_rtsp_internal_server

#endif  // PROTOCOL_RTSP_IN_SERVER_NET_QZ_UDP_SINK_H_
