#include "protocol/rtsp_in_server/qz_udp_batch.h"

#include <cstring>

namespace qz_rtsp_internal_server {

void UdpBatch::Add(const asio::ip::udp::endpoint& to, const uint8_t* data, size_t size, void* tag) {
  if (count_ == kMaxBatch) {
    Flush();
  }
  const size_t i = count_++;
  tags_[i] = tag;
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
      if (on_result_) {
        on_result_(tags_[next], iovecs_[next].iov_len, false);
      }
      ++next;
      continue;
    }
    for (size_t k = next; k < next + static_cast<size_t>(n); ++k) {
      bytes_sent_ += iovecs_[k].iov_len;
      if (on_result_) {
        on_result_(tags_[k], iovecs_[k].iov_len, true);
      }
    }
    datagrams_sent_ += static_cast<size_t>(n);
    next += static_cast<size_t>(n);
  }
  count_ = 0;
}

}  // namespace qz_rtsp_internal_server
