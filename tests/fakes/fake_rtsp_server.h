// A stand-in for an in-process RTSP server: registers with the registry under
// a chosen handle, takes or refuses pipes, and records every record posted
// into the pipes it took, together with the pipe's parameter sets as they
// were at that moment.
#ifndef TESTS_FAKES_FAKE_RTSP_SERVER_H_
#define TESTS_FAKES_FAKE_RTSP_SERVER_H_

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "protocol/rtsp_in_server/qz_rtsp_packet_pipe.h"
#include "protocol/rtsp_in_server/qz_rtsp_server_mgr.h"

namespace qz_test {

using qz_rtsp_internal_server::QZRtspAudioPacket;
using qz_rtsp_internal_server::QZRtspPacketPiple;
using qz_rtsp_internal_server::QZRtspVideoPacket;

inline void* Handle(uintptr_t v) {
  return reinterpret_cast<void*>(v);
}

struct ReceivedVideo {
  std::shared_ptr<QZRtspVideoPacket> record;
  std::vector<unsigned char> vps, sps, pps;  // the pipe's sets when it arrived
};

struct ReceivedAudio {
  std::shared_ptr<QZRtspAudioPacket> record;
  std::vector<unsigned char> config;  // the pipe's AudioSpecificConfig then
  int sample_rate = 0;                // the pipe's audio info then
  int channels = 0;
};

class FakeRtspServer : public qz_rtsp_internal_server::QZRtspPipeAcceptor,
                       public std::enable_shared_from_this<FakeRtspServer> {
 public:
  // Registers under `handle`; Unregister() takes it off the registry.
  static std::shared_ptr<FakeRtspServer> Create(void* handle, bool accept = true);

  void Unregister();
  void* handle() const { return handle_; }

  void set_accept(bool accept);
  // A URL the server sets on every pipe it takes from now on ("" for none).
  void set_url_on_accept(const std::string& url);

  bool AcceptPiple(const std::shared_ptr<QZRtspPacketPiple>& piple, std::string& why) override;
  void WithdrawPiple(const std::shared_ptr<QZRtspPacketPiple>& piple) override;

  std::vector<std::shared_ptr<QZRtspPacketPiple>> pipes() { return Locked(pipes_); }
  std::vector<std::shared_ptr<QZRtspPacketPiple>> withdrawn() { return Locked(withdrawn_); }
  int offered() { return Locked(offered_); }
  std::vector<ReceivedVideo> video() { return Locked(video_); }
  std::vector<ReceivedAudio> audio() { return Locked(audio_); }

 private:
  FakeRtspServer(void* handle, bool accept) : handle_(handle), accept_(accept) {}
  template <typename T>
  T Locked(const T& value) {
    std::lock_guard<std::mutex> lock(mutex_);
    return value;
  }

  void* const handle_;
  std::mutex mutex_;  // guards everything below
  bool accept_;
  int offered_ = 0;
  std::string url_on_accept_;
  std::vector<std::shared_ptr<QZRtspPacketPiple>> pipes_;
  std::vector<std::shared_ptr<QZRtspPacketPiple>> withdrawn_;
  std::vector<std::shared_ptr<void>> consumers_;
  std::vector<ReceivedVideo> video_;
  std::vector<ReceivedAudio> audio_;
};

}  // namespace qz_test

#endif  // TESTS_FAKES_FAKE_RTSP_SERVER_H_
