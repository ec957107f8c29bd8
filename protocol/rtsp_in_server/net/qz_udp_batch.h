// Sends many datagrams from one non-blocking UDP socket with as few system
// calls and as little kernel work as the system allows. On the Linux path
// (platform/qz_net_platform.h): one sendmmsg() per batch of up to
// kMaxMessages messages, and, with generic segmentation offload
// (UDP_SEGMENT), one message for a run of datagrams to the same client
// (a video frame's RTP packets, which all have the same size but the last):
// the kernel builds and routes one large buffer and cuts it into datagrams
// at the very end instead of walking its stack once per datagram. On the
// portable path every datagram is one sendmsg() and nothing is segmented.
// A message the kernel refuses (a full socket buffer, an unreachable port)
// is dropped and counted per datagram; the rest of the batch still goes.
// When the kernel cannot segment (no checksum offload on the route's
// device, a datagram larger than the device's MTU) the refused message is
// sent one datagram at a time and GSO is switched off.
#ifndef PROTOCOL_RTSP_IN_SERVER_NET_QZ_UDP_BATCH_H_
#define PROTOCOL_RTSP_IN_SERVER_NET_QZ_UDP_BATCH_H_

#include <sys/socket.h>
#include <sys/uio.h>

#include <asio.hpp>
#include <cstddef>
#include <cstdint>
#include <functional>

#include "protocol/rtsp_in_server/net/platform/qz_net_platform.h"

namespace qz_rtsp_internal_server {

class UdpBatch {
 public:
  static constexpr size_t kMaxMessages = UdpSender::kMaxMessages;  // held before a flush
  // Datagrams in one segmented message (the kernel's UDP_MAX_SEGMENTS) and
  // its largest total, under the 64 KiB limit of one IP datagram.
  static constexpr size_t kMaxSegments = 64;
  static constexpr size_t kMaxSegmentedBytes = 60000;
  static constexpr size_t kMaxDatagrams = 1024;  // held before a flush

  // Told of every datagram once its fate is known: the tag it was added
  // with, its size, and whether the kernel took it. May be empty.
  using Result = std::function<void(void* tag, size_t size, bool sent)>;

  // `gso` points at the caller's switch (nullptr: never segment). Datagrams
  // are merged while it is true; the batch clears it when the kernel turns
  // segmentation down, so that later batches do not try again, and at once
  // where this build or the socket's kernel cannot segment at all.
  UdpBatch(int fd, bool* gso, Result on_result = nullptr);
  explicit UdpBatch(int fd) : UdpBatch(fd, nullptr) {}
  ~UdpBatch() { Flush(); }
  UdpBatch(const UdpBatch&) = delete;
  UdpBatch& operator=(const UdpBatch&) = delete;

  // Queues one datagram (sending the batch first when it is full). The bytes
  // must stay valid until the next Flush(). Datagrams with the same tag and
  // destination added in a row may leave as one segmented message.
  void Add(const asio::ip::udp::endpoint& to,
           const uint8_t* data,
           size_t size,
           void* tag = nullptr);
  void Flush();

  size_t bytes_sent() const { return bytes_sent_; }
  size_t datagrams_sent() const { return datagrams_sent_; }
  size_t datagrams_dropped() const { return datagrams_dropped_; }
  size_t system_calls() const { return system_calls_; }
  size_t messages_sent() const { return messages_sent_; }  // segmented ones count once

 private:
  // The datagrams of one message: iovecs_[first, first + count).
  struct Run {
    void* tag;
    size_t first;
    size_t count;
    size_t bytes;
    size_t segment;  // size of every datagram but a shorter last one
    bool closed;     // a shorter datagram ended it
  };

  bool Extends(const Run& run, const asio::ip::udp::endpoint& to, size_t size) const;
  void Account(void* tag, size_t size, bool sent);  // one datagram
  void Report(size_t message, bool sent);
  bool SendOneByOne(size_t message);

  UdpSender sender_;
  bool* gso_;
  Result on_result_;
  size_t count_ = 0;  // messages
  size_t datagrams_ = 0;
  Run runs_[kMaxMessages];
  sockaddr_storage addresses_[kMaxMessages];
  socklen_t address_sizes_[kMaxMessages];
  iovec iovecs_[kMaxDatagrams];
  size_t bytes_sent_ = 0;
  size_t datagrams_sent_ = 0;
  size_t datagrams_dropped_ = 0;
  size_t system_calls_ = 0;
  size_t messages_sent_ = 0;
};

}  // namespace qz_rtsp_internal_server

#endif  // PROTOCOL_RTSP_IN_SERVER_NET_QZ_UDP_BATCH_H_
