// Reaches into RtspSinker's private operations and state for the tests.
#ifndef TESTS_PUBLISHER_RTSP_SINKER_TEST_PEER_H_
#define TESTS_PUBLISHER_RTSP_SINKER_TEST_PEER_H_

#include <vector>

#include "publisher/qz_rtsp_sinker.h"

namespace qz_publisher {

class RtspSinkerTestPeer {
 public:
  explicit RtspSinkerTestPeer(RtspSinker& sinker) : s_(sinker) {}

  // Queue and send loop.
  QZ_MediaPacketRefPtr PopPacket() { return s_.PopPacket(); }
  std::vector<QZ_MediaPacketRefPtr> Queued() {
    std::lock_guard<std::recursive_mutex> lock(s_.packet_rmutex_);
    return std::vector<QZ_MediaPacketRefPtr>(s_.packet_list_.begin(), s_.packet_list_.end());
  }
  // Queue entries that have a push stamp: as many as are queued when no
  // stamp was lost or leaked.
  size_t StampedEntries() {
    std::lock_guard<std::recursive_mutex> lock(s_.packet_rmutex_);
    size_t entries = 0;
    for (const auto& stamp : s_.push_stamps_) {
      entries += static_cast<size_t>(stamp.second.entries);
    }
    return entries;
  }
  void SaveInitPacket(QZ_MediaPacketRefPtr p) { s_.SaveInitPacket(p); }
  bool IsCanInitRtsp() const { return s_.IsCanInitRtsp(); }
  QZ_MediaPacketRefPtr init_audio_packet() const { return s_.init_audio_packet_; }
  QZ_MediaPacketRefPtr init_video_packet() const { return s_.init_video_packet_; }
  void set_send_thread_running(bool running) { s_.is_send_thread_running_.store(running); }
  void set_send_thread_exit(bool exit) { s_.is_send_thread_exit_.store(exit); }

  // Drop policy.
  QZ_UINT64 GetVideoDelayTime() { return s_.GetVideoDelayTime(); }
  void DropPacket(QZ_UINT64 delay) { s_.DropPacket(delay); }
  int GetSleepCount(int seed) { return s_.GetSleepCount(seed); }
  void SleepDropPacket(int count) { s_.SleepDropPacket(count); }
  bool is_no_complete_video_packet_drop() const { return s_.is_no_complete_video_packet_drop_; }
  void set_is_no_complete_video_packet_drop(bool v) { s_.is_no_complete_video_packet_drop_ = v; }

  // Session.
  bool InitRtsp() { return s_.InitRtsp(); }
  void UnInitRtsp() { s_.UnInitRtsp(); }  // the benchmarks tear sessions down
  void NotifyRtspURLs() { s_.NotifyRtspURLs(); }
  size_t PipleCount() const { return s_.handle_2_piple_.size(); }
  std::shared_ptr<QZRtspPacketPiple> Piple(void* handle) {
    auto it = s_.handle_2_piple_.find(handle);
    return it == s_.handle_2_piple_.end() ? nullptr : it->second;
  }
  bool is_setting_video_vps_sps_pps() const { return s_.is_setting_video_vps_sps_pps_; }
  bool is_setting_audio_spec_config() const { return s_.is_setting_audio_spec_config_; }
  const std::vector<unsigned char>& sps() const { return s_.sps_; }
  const std::vector<unsigned char>& audio_specific_config() const {
    return s_.audio_specific_config_;
  }
  int sample_rate() const { return s_.sample_rate_; }
  bool is_first_video() const { return s_.is_first_video_; }
  void set_time_origin(QZ_UINT64 origin) {
    s_.is_send_first_frame_ = false;
    s_.send_first_frame_timestamp_ = origin;
  }

  // NAL scanning and send paths.
  QZ_UINT8* FindNalStartCode(QZ_UINT8* buf, int size, int& len) const {
    return s_.FindNalStartCode(buf, size, len);
  }
  QZ_UINT8* FindNalType(QZ_UINT8* buf, int size, int type, int& scl, int* nal_len) const {
    return s_.FindNalType(buf, size, type, scl, nal_len);
  }
  void SendVideoPacket(QZ_MediaPacketRefPtr p) { s_.SendVideoPacket(p); }
  void SendAudioPacket(QZ_MediaPacketRefPtr p) { s_.SendAudioPacket(p); }
  size_t UserDataQueued() { return s_.user_data_queue_->Size(); }

 private:
  RtspSinker& s_;
};

}  // namespace qz_publisher

#endif  // TESTS_PUBLISHER_RTSP_SINKER_TEST_PEER_H_
