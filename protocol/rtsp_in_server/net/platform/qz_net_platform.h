// The net layer's platform unit: the only code of the library and its tests
// that calls what one operating system has and the others lack
// (scripts/check_portable.sh fails the build's tests when such calls appear
// anywhere else). This header uses POSIX types only; which of the two
// implementations is built is decided when the build is configured (see
// CMakeLists.txt in this folder, which prints the choice):
//
//   qz_net_platform_linux.cc     Linux, and Android from API 21: a batch of
//                                messages in one sendmmsg(), a run of
//                                datagrams to one client as one message that
//                                the kernel cuts into datagrams (UDP_SEGMENT,
//                                generic segmentation offload), MSG_NOSIGNAL.
//   qz_net_platform_portable.cc  iOS, macOS, the BSDs, older Android, and
//                                Linux configured with -DQZ_PORTABLE_NET=ON:
//                                one sendmsg() per datagram, never
//                                segmentation, SO_NOSIGPIPE on the socket
//                                where the system has that option.
#ifndef PROTOCOL_RTSP_IN_SERVER_NET_PLATFORM_QZ_NET_PLATFORM_H_
#define PROTOCOL_RTSP_IN_SERVER_NET_PLATFORM_QZ_NET_PLATFORM_H_

#include <sys/socket.h>
#include <sys/types.h>
#include <sys/uio.h>

#include <cstddef>
#include <memory>

namespace qz_rtsp_internal_server {

enum class UdpSendPath {
  kLinux,     // several messages per system call, segmentation where the kernel has it
  kPortable,  // one system call per datagram, no segmentation
};
// This build's path.
extern const UdpSendPath kUdpSendPath;

// For the log: the path, and whether segmentation is in use.
const char* DescribeUdpSendPath(bool segmenting);

// Sends the messages of one batch from one non-blocking UDP socket. A
// message is one datagram, or, where the kernel segments, a run of
// datagrams to one address that all have one size but a shorter last.
// The system's message headers live behind a pointer, allocated once per
// sender, so that this header needs none of one system's own types.
class UdpSender {
 public:
  static constexpr size_t kMaxMessages = 64;  // set between two sends

  explicit UdpSender(int fd);
  ~UdpSender();
  UdpSender(const UdpSender&) = delete;
  UdpSender& operator=(const UdpSender&) = delete;

  // Whether messages may hold several datagrams: this build segments and
  // the socket's kernel knows how (asked once, when the sender is made;
  // Linux before 4.18 does not, and would send the run as one datagram).
  bool can_segment() const { return can_segment_; }

  // Message `i` of the next Send(): `count` datagrams, datagrams[0, count),
  // to `to`; count > 1 only where can_segment(), each datagram `segment`
  // bytes but a shorter last. The pointers must stay valid until the send.
  void Set(size_t i,
           sockaddr_storage* to,
           socklen_t to_size,
           iovec* datagrams,
           size_t count,
           size_t segment);

  struct Result {
    size_t taken;         // messages the kernel took, from `first` on
    bool cannot_segment;  // none taken: message `first` was refused because
                          // the kernel or the device cannot segment it
  };
  // One system call for messages [first, end): the Linux path hands them
  // all to sendmmsg(), the portable one sends message `first` alone.
  Result Send(size_t first, size_t end);

  // One datagram in one system call; true when the kernel took it.
  bool SendDatagram(sockaddr_storage* to, socklen_t to_size, iovec* datagram);

 private:
  struct Messages;
  int fd_;
  bool can_segment_;
  std::unique_ptr<Messages> messages_;
};

// Writes to a connection that the peer has closed fail with EPIPE instead of
// raising SIGPIPE, which would end the app. Some systems mark that on the
// socket (SO_NOSIGPIPE: Apple, the BSDs), others on each send: a socket
// that SendWithoutSigpipe() writes must have been through
// SuppressSigpipe() first. Asio does both for the sockets it opens.
void SuppressSigpipe(int fd);
ssize_t SendWithoutSigpipe(int fd, const void* data, size_t size);

// For tests: makes the kernel refuse to segment what the IPv4 socket `fd`
// sends (UDP without checksums cannot be segmented), so that the fallback to
// one datagram at a time runs. False where this build never segments.
bool RefuseUdpSegmentationForTesting(int fd);

}  // namespace qz_rtsp_internal_server

#endif  // PROTOCOL_RTSP_IN_SERVER_NET_PLATFORM_QZ_NET_PLATFORM_H_
