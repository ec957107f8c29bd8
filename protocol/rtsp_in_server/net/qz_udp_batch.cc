#include "protocol/rtsp_in_server/net/qz_udp_batch.h"

#include <netinet/udp.h>

#include <cerrno>
#include <cstring>

namespace qz_rtsp_internal_server {

bool UdpBatch::Extends(const Run& run, const asio::ip::udp::endpoint& to, size_t size) const {
  const size_t last = count_ - 1;
  return !run.closed && size <= run.segment && run.count < kMaxSegments &&
         run.bytes + size <= kMaxSegmentedBytes && address_sizes_[last] == to.size() &&
         std::memcmp(&addresses_[last], to.data(), to.size()) == 0;
}

void UdpBatch::Add(const asio::ip::udp::endpoint& to, const uint8_t* data, size_t size, void* tag) {
  if (datagrams_ == kMaxDatagrams) {
    Flush();
  }
  if (gso_ != nullptr && *gso_ && count_ > 0 && runs_[count_ - 1].tag == tag &&
      Extends(runs_[count_ - 1], to, size)) {
    Run& run = runs_[count_ - 1];
    iovecs_[datagrams_++] = iovec{const_cast<uint8_t*>(data), size};
    ++run.count;
    run.bytes += size;
    run.closed = size < run.segment;
    return;
  }
  if (count_ == kMaxMessages) {
    Flush();
  }
  const size_t i = count_++;
  std::memcpy(&addresses_[i], to.data(), to.size());
  address_sizes_[i] = static_cast<socklen_t>(to.size());
  runs_[i] = Run{tag, datagrams_, 1, size, size, false};
  iovecs_[datagrams_++] = iovec{const_cast<uint8_t*>(data), size};
}

void UdpBatch::Prepare(size_t i) {
  msghdr& header = messages_[i].msg_hdr;
  std::memset(&messages_[i], 0, sizeof(messages_[i]));
  header.msg_name = &addresses_[i];
  header.msg_namelen = address_sizes_[i];
  header.msg_iov = &iovecs_[runs_[i].first];
  header.msg_iovlen = runs_[i].count;
  if (runs_[i].count > 1) {
    header.msg_control = controls_[i];
    header.msg_controllen = sizeof(controls_[i]);
    cmsghdr* control = CMSG_FIRSTHDR(&header);
    control->cmsg_level = SOL_UDP;
    control->cmsg_type = UDP_SEGMENT;
    control->cmsg_len = CMSG_LEN(sizeof(uint16_t));
    const uint16_t segment = static_cast<uint16_t>(runs_[i].segment);
    std::memcpy(CMSG_DATA(control), &segment, sizeof(segment));
  }
}

void UdpBatch::Account(void* tag, size_t size, bool sent) {
  if (sent) {
    bytes_sent_ += size;
    ++datagrams_sent_;
  } else {
    ++datagrams_dropped_;
  }
  if (on_result_) {
    on_result_(tag, size, sent);
  }
}

void UdpBatch::Report(size_t i, bool sent) {
  const Run& run = runs_[i];
  for (size_t k = run.first; k < run.first + run.count; ++k) {
    Account(run.tag, iovecs_[k].iov_len, sent);
  }
}

// The kernel refused to segment message `i`: its datagrams go one by one.
// True when at least one of them went (so segmentation was the problem).
bool UdpBatch::SendOneByOne(size_t i) {
  const Run& run = runs_[i];
  bool any = false;
  for (size_t k = run.first; k < run.first + run.count; ++k) {
    msghdr header{};
    header.msg_name = &addresses_[i];
    header.msg_namelen = address_sizes_[i];
    header.msg_iov = &iovecs_[k];
    header.msg_iovlen = 1;
    ++system_calls_;
    const bool sent = sendmsg(fd_, &header, MSG_DONTWAIT | MSG_NOSIGNAL) >= 0;
    any = any || sent;
    messages_sent_ += sent ? 1 : 0;
    Account(run.tag, iovecs_[k].iov_len, sent);
  }
  return any;
}

void UdpBatch::Flush() {
  for (size_t i = 0; i < count_; ++i) {
    Prepare(i);
  }
  size_t next = 0;
  while (next < count_) {
    ++system_calls_;
    const int n = sendmmsg(fd_, &messages_[next], static_cast<unsigned>(count_ - next),
                           MSG_DONTWAIT | MSG_NOSIGNAL);
    if (n <= 0) {
      const int error = errno;
      const bool segmented = runs_[next].count > 1;
      if (segmented && (error == EIO || error == EINVAL || error == EOPNOTSUPP)) {
        if (SendOneByOne(next) && gso_ != nullptr) {
          *gso_ = false;
        }
      } else {
        Report(next, false);  // this one was refused: go on with the next
      }
      ++next;
      continue;
    }
    for (size_t k = next; k < next + static_cast<size_t>(n); ++k) {
      Report(k, true);
    }
    messages_sent_ += static_cast<size_t>(n);
    next += static_cast<size_t>(n);
  }
  count_ = 0;
  datagrams_ = 0;
}

}  // namespace qz_rtsp_internal_server
