// The Linux path of the platform unit (Linux, and Android from API 21):
// sendmmsg() batches, UDP_SEGMENT segmentation, MSG_NOSIGNAL on every send.
#include "protocol/rtsp_in_server/net/platform/qz_net_platform.h"

#include <netinet/in.h>
#include <netinet/udp.h>

#include <cerrno>
#include <cstdint>
#include <cstring>

#if !defined(__linux__)
#error \
    "the Linux path builds for Linux and Android only; configuring picks the portable one elsewhere"
#endif

namespace qz_rtsp_internal_server {
namespace {

constexpr int kSendFlags = MSG_DONTWAIT | MSG_NOSIGNAL;

}  // namespace

const UdpSendPath kUdpSendPath = UdpSendPath::kLinux;

const char* DescribeUdpSendPath(bool segmenting) {
  return segmenting ? "linux path (sendmmsg batches, GSO on)"
                    : "linux path (sendmmsg batches, GSO off)";
}

struct UdpSender::Messages {
  mmsghdr headers[kMaxMessages];
  // A segmented message's control message: the size of its datagrams.
  alignas(cmsghdr) char controls[kMaxMessages][CMSG_SPACE(sizeof(uint16_t))];
};

UdpSender::UdpSender(int fd) : fd_(fd), messages_(std::make_unique<Messages>()) {
  // Kernels from 4.18 on know the option; older ones answer ENOPROTOOPT,
  // and would ignore the control message of a segmented send.
  int size = 0;
  socklen_t length = sizeof(size);
  can_segment_ = getsockopt(fd, SOL_UDP, UDP_SEGMENT, &size, &length) == 0;
}

UdpSender::~UdpSender() = default;

void UdpSender::Set(size_t i,
                    sockaddr_storage* to,
                    socklen_t to_size,
                    iovec* datagrams,
                    size_t count,
                    size_t segment) {
  mmsghdr& message = messages_->headers[i];
  std::memset(&message, 0, sizeof(message));
  msghdr& header = message.msg_hdr;
  header.msg_name = to;
  header.msg_namelen = to_size;
  header.msg_iov = datagrams;
  header.msg_iovlen = count;
  if (count > 1) {
    header.msg_control = messages_->controls[i];
    header.msg_controllen = sizeof(messages_->controls[i]);
    cmsghdr* control = CMSG_FIRSTHDR(&header);
    control->cmsg_level = SOL_UDP;
    control->cmsg_type = UDP_SEGMENT;
    control->cmsg_len = CMSG_LEN(sizeof(uint16_t));
    const uint16_t size = static_cast<uint16_t>(segment);
    std::memcpy(CMSG_DATA(control), &size, sizeof(size));
  }
}

UdpSender::Result UdpSender::Send(size_t first, size_t end) {
  const int n =
      sendmmsg(fd_, &messages_->headers[first], static_cast<unsigned>(end - first), kSendFlags);
  if (n > 0) {
    return {static_cast<size_t>(n), false};
  }
  // EIO: the route's device has no checksum offload; EINVAL: a datagram
  // larger than its MTU, or a socket without UDP checksums.
  const int error = errno;
  const bool segmented = messages_->headers[first].msg_hdr.msg_iovlen > 1;
  return {0, segmented && (error == EIO || error == EINVAL || error == EOPNOTSUPP)};
}

bool UdpSender::SendDatagram(sockaddr_storage* to, socklen_t to_size, iovec* datagram) {
  msghdr header{};
  header.msg_name = to;
  header.msg_namelen = to_size;
  header.msg_iov = datagram;
  header.msg_iovlen = 1;
  return sendmsg(fd_, &header, kSendFlags) >= 0;
}

void SuppressSigpipe(int) {}  // each send asks with MSG_NOSIGNAL

ssize_t SendWithoutSigpipe(int fd, const void* data, size_t size) {
  return send(fd, data, size, MSG_NOSIGNAL);
}

bool RefuseUdpSegmentationForTesting(int fd) {
  const int on = 1;
  return setsockopt(fd, SOL_SOCKET, SO_NO_CHECK, &on, sizeof(on)) == 0;
}

}  // namespace qz_rtsp_internal_server
