#include "protocol/rtsp_in_server/media/qz_rtsp_io_gate.h"

namespace qz_rtsp_internal_server {

bool RtspIoGate::Post(std::function<void()> work, bool bounded) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (!poster_ || (bounded && batch_.size() >= max_pending_)) {
    return false;
  }
  batch_.push_back(std::move(work));
  if (!scheduled_) {
    scheduled_ = true;
    poster_([self = shared_from_this()] { self->RunBatch(); });
  }
  return true;
}

size_t RtspIoGate::pending() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return batch_.size();
}

void RtspIoGate::RunBatch() {
  std::vector<std::function<void()>> batch;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    batch.swap(batch_);
    scheduled_ = false;
  }
  for (auto& work : batch) {
    work();
  }
}

void RtspIoGate::Close() {
  std::lock_guard<std::mutex> lock(mutex_);
  poster_ = nullptr;  // a batch already handed over still runs
}

}  // namespace qz_rtsp_internal_server
