// Sends many datagrams from one non-blocking UDP socket with as few system
// calls as Linux allows: one sendmmsg() per batch of up to kMaxBatch. A
// datagram the kernel refuses (a full socket buffer, an unreachable port) is
// dropped and counted; the rest of the batch still goes.
#ifndef PROTOCOL_RTSP_IN_SERVER_QZ_UDP_BATCH_H_
#define PROTOCOL_RTSP_IN_SERVER_QZ_UDP_BATCH_H_

#include <netinet/in.h>
#include <sys/socket.h>

#include <asio.hpp>
#include <cstddef>
#include <cstdint>
#include <functional>

namespace qz_rtsp_internal_server {

class UdpBatch {
 public:
  static constexpr size_t kMaxBatch = 64;

  // Told of every datagram once its fate is known: the tag it was added
  // with, its size, and whether the kernel took it. May be empty.
  using Result = std::function<void(void* tag, size_t size, bool sent)>;

  explicit UdpBatch(int fd, Result on_result = nullptr)
      : fd_(fd), on_result_(std::move(on_result)) {}
  ~UdpBatch() { Flush(); }
  UdpBatch(const UdpBatch&) = delete;
  UdpBatch& operator=(const UdpBatch&) = delete;

  // Queues one datagram (sending the batch first when it is full). The bytes
  // must stay valid until the next Flush().
  void Add(const asio::ip::udp::endpoint& to,
           const uint8_t* data,
           size_t size,
           void* tag = nullptr);
  void Flush();

  size_t bytes_sent() const { return bytes_sent_; }
  size_t datagrams_sent() const { return datagrams_sent_; }
  size_t datagrams_dropped() const { return datagrams_dropped_; }
  size_t system_calls() const { return system_calls_; }

 private:
  int fd_;
  Result on_result_;
  size_t count_ = 0;
  void* tags_[kMaxBatch];
  sockaddr_storage addresses_[kMaxBatch];
  iovec iovecs_[kMaxBatch];
  mmsghdr messages_[kMaxBatch];
  size_t bytes_sent_ = 0;
  size_t datagrams_sent_ = 0;
  size_t datagrams_dropped_ = 0;
  size_t system_calls_ = 0;
};

}  // namespace qz_rtsp_internal_server

#endif  // PROTOCOL_RTSP_IN_SERVER_QZ_UDP_BATCH_H_
