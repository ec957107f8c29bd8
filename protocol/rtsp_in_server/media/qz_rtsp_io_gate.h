// The door from the publisher's threads to the server's network thread.
#ifndef PROTOCOL_RTSP_IN_SERVER_MEDIA_QZ_RTSP_IO_GATE_H_
#define PROTOCOL_RTSP_IN_SERVER_MEDIA_QZ_RTSP_IO_GATE_H_

#include <functional>
#include <memory>
#include <mutex>
#include <vector>

namespace qz_rtsp_internal_server {

// Lets threads outside the server hand work to the network thread for as
// long as the server runs; after Close() posts are dropped. Work posted while
// earlier work still waits joins it: the poster is called once per batch,
// with a function that runs the batch in order (the server writes what a
// batch queued for its TCP clients after it, so that records posted together
// leave in one write). The poster must not run that function before it
// returns.
//
// The work waiting is bounded: when the network thread stalls (a debugger,
// a starved core, a callback that blocks), posts beyond `max_pending` are
// refused rather than piling up the publisher's frames without end.
class RtspIoGate : public std::enable_shared_from_this<RtspIoGate> {
 public:
  using Poster = std::function<void(std::function<void()>)>;
  static constexpr size_t kDefaultMaxPending = 512;
  explicit RtspIoGate(Poster poster, size_t max_pending = kDefaultMaxPending)
      : poster_(std::move(poster)), max_pending_(max_pending) {}
  // False when the gate is closed or full (the work is dropped). `bounded`
  // false lets a small, rare control item through a full gate.
  bool Post(std::function<void()> work, bool bounded = true);
  void Close();
  size_t pending() const;

 private:
  void RunBatch();

  mutable std::mutex mutex_;  // guards the members below
  Poster poster_;
  size_t max_pending_;
  std::vector<std::function<void()>> batch_;
  bool scheduled_ = false;  // the poster holds a RunBatch() that has not started
};

}  // namespace qz_rtsp_internal_server

#endif  // PROTOCOL_RTSP_IN_SERVER_MEDIA_QZ_RTSP_IO_GATE_H_
