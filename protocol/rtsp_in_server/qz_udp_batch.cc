#include "protocol/rtsp_in_server/qz_udp_batch.h"

#include <cstring>

namespace qz_rtsp_internal_server {

void UdpBatch::Add(const asio::ip::udp::endpoint& to, const uint8_t* data, size_t size) {
  if (count_ == kMaxBatch) {
    Flush();
  }
  const size_t i = count_++;
  std::memcpy(&addresses_[i], to.data(), to.size());
  iovecs_[i].iov_base = const_cast<uint8_t*>(data);
  iovecs_[i].iov_len = size;
  std::memset(&messages_[i], 0, sizeof(messages_[i]));
  messages_[i].msg_hdr.msg_name = &addresses_[i];
  messages_[i].msg_hdr.msg_namelen = static_cast<socklen_t>(to.size());
  messages_[i].msg_hdr.msg_iov = &iovecs_[i];
  messages_[i].msg_hdr.msg_iovlen = 1;
}

void UdpBatch::Flush() {
  size_t next = 0;
  while (next < count_) {
    ++system_calls_;
    const int n = sendmmsg(fd_, &messages_[next], static_cast<unsigned>(count_ - next),
                           MSG_DONTWAIT | MSG_NOSIGNAL);
    if (n <= 0) {
      ++datagrams_dropped_;  // this one was refused: go on with the next
      ++next;
      continue;
    }
    for (int k = 0; k < n; ++k) {
      bytes_sent_ += iovecs_[next + static_cast<size_t>(k)].iov_len;
    }
    datagrams_sent_ += static_cast<size_t>(n);
    next += static_cast<size_t>(n);
  }
  count_ = 0;
}

}  // namespace qz_rtsp_internal_server
