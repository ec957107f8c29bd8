#include "protocol/rtsp_in_server/net/qz_udp_batch.h"

#include <cstring>
#include <utility>

namespace qz_rtsp_internal_server {

UdpBatch::UdpBatch(int fd, bool* gso, Result on_result)
    : sender_(fd), gso_(gso), on_result_(std::move(on_result)) {
  if (gso_ != nullptr && !sender_.can_segment()) {
    *gso_ = false;
    gso_ = nullptr;
  }
}

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
    ++system_calls_;
    const bool sent = sender_.SendDatagram(&addresses_[i], address_sizes_[i], &iovecs_[k]);
    any = any || sent;
    messages_sent_ += sent ? 1 : 0;
    Account(run.tag, iovecs_[k].iov_len, sent);
  }
  return any;
}

void UdpBatch::Flush() {
  for (size_t i = 0; i < count_; ++i) {
    const Run& run = runs_[i];
    sender_.Set(i, &addresses_[i], address_sizes_[i], &iovecs_[run.first], run.count, run.segment);
  }
  size_t next = 0;
  while (next < count_) {
    ++system_calls_;
    const UdpSender::Result result = sender_.Send(next, count_);
    if (result.taken == 0) {
      if (result.cannot_segment) {
        if (SendOneByOne(next) && gso_ != nullptr) {
          *gso_ = false;
        }
      } else {
        Report(next, false);  // this one was refused: go on with the next
      }
      ++next;
      continue;
    }
    for (size_t k = next; k < next + result.taken; ++k) {
      Report(k, true);
    }
    messages_sent_ += result.taken;
    next += result.taken;
  }
  count_ = 0;
  datagrams_ = 0;
}

}  // namespace qz_rtsp_internal_server
