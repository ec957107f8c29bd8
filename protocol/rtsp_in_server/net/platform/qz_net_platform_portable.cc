// The portable path of the platform unit, for any POSIX system: one
// sendmsg() per datagram, no segmentation. A closed peer must not raise
// SIGPIPE: MSG_NOSIGNAL on each send where the system has it (POSIX.1-2008;
// Linux, Android, the BSDs), SO_NOSIGPIPE on the socket where it has that
// (Apple, the BSDs).
#include "protocol/rtsp_in_server/net/platform/qz_net_platform.h"

#include <cassert>

namespace qz_rtsp_internal_server {
namespace {

#ifdef MSG_NOSIGNAL
constexpr int kNoSignal = MSG_NOSIGNAL;
#else
constexpr int kNoSignal = 0;
#endif
constexpr int kSendFlags = MSG_DONTWAIT | kNoSignal;

}  // namespace

const UdpSendPath kUdpSendPath = UdpSendPath::kPortable;

const char* DescribeUdpSendPath(bool) {
  return "portable path (sendmsg per datagram, GSO off)";
}

struct UdpSender::Messages {
  msghdr headers[kMaxMessages];
};

UdpSender::UdpSender(int fd)
    : fd_(fd), can_segment_(false), messages_(std::make_unique<Messages>()) {
  SuppressSigpipe(fd);
}

UdpSender::~UdpSender() = default;

void UdpSender::Set(size_t i,
                    sockaddr_storage* to,
                    socklen_t to_size,
                    iovec* datagrams,
                    size_t count,
                    size_t) {
  assert(count == 1);  // one sendmsg() would join them into one datagram
  (void)count;
  msghdr& header = messages_->headers[i];
  header = msghdr{};
  header.msg_name = to;
  header.msg_namelen = to_size;
  header.msg_iov = datagrams;
  header.msg_iovlen = 1;
}

UdpSender::Result UdpSender::Send(size_t first, size_t) {
  const bool sent = sendmsg(fd_, &messages_->headers[first], kSendFlags) >= 0;
  return {sent ? 1u : 0u, false};
}

bool UdpSender::SendDatagram(sockaddr_storage* to, socklen_t to_size, iovec* datagram) {
  msghdr header{};
  header.msg_name = to;
  header.msg_namelen = to_size;
  header.msg_iov = datagram;
  header.msg_iovlen = 1;
  return sendmsg(fd_, &header, kSendFlags) >= 0;
}

void SuppressSigpipe(int fd) {
#ifdef SO_NOSIGPIPE
  const int on = 1;
  setsockopt(fd, SOL_SOCKET, SO_NOSIGPIPE, &on, sizeof(on));
#else
  (void)fd;  // each send asks with MSG_NOSIGNAL
#endif
}

ssize_t SendWithoutSigpipe(int fd, const void* data, size_t size) {
  return send(fd, data, size, kNoSignal);
}

bool RefuseUdpSegmentationForTesting(int) {
  return false;
}

}  // namespace qz_rtsp_internal_server
