// RtspSinker: the publisher's output towards the RTSP servers running in the
// same process. Encoder threads push packets; the sinker's send thread queues
// them in timestamp order, creates one packet pipe per server once the codec
// configuration is known, turns every packet into a record and posts it into
// every pipe, and drops queued video when it falls behind.
//
// Threads: construction, Start, Stop, the setters, PostUserData,
// ClearPostUserDataQueue and destruction belong to the publisher's
// controlling thread and must not run concurrently with one another;
// PushPacket may be called from any number of encoder threads at any time.
// SetRtspServers and SetVideoKBitrate take effect when the pipes are next
// created, so call them while the sinker is stopped.
#ifndef PUBLISHER_QZ_RTSP_SINKER_H_
#define PUBLISHER_QZ_RTSP_SINKER_H_

#include <pthread.h>

#include <atomic>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "common/qz_pb_user_data.h"
#include "protocol/rtsp_in_server/qz_rtsp_packet_pipe.h"
#include "publisher/qz_media_define.h"
#include "publisher/qz_media_sinker.h"
#include "topcommon/qz_event_mgr.h"
#include "topcommon/qz_type_define.h"

namespace qz_h2645 {
class NalUnitList;
}  // namespace qz_h2645

namespace qz_publisher {

using qz_common::PublisherUserData;
using qz_common::PublisherUserDataQueue;
using qz_rtsp_internal_server::QZRtspAudioPacket;
using qz_rtsp_internal_server::QZRtspPacketData;
using qz_rtsp_internal_server::QZRtspPacketPiple;
using qz_rtsp_internal_server::QZRtspVideoPacket;

class RtspSinker : public MediaSinker {
 public:
  // `event_mgr` must not be null and must outlive the sinker; `stream_name`
  // must not be empty. `user_data_queue_max_size` bounds the user data
  // waiting to be carried in the H.264 stream.
  RtspSinker(QZ_NAMESPACE::EventMgr* event_mgr,
             const std::string& stream_name,
             bool is_has_auido,
             bool is_has_video,
             QZ_INT32 user_data_queue_max_size);
  ~RtspSinker() override;

  RtspSinker(const RtspSinker&) = delete;
  RtspSinker& operator=(const RtspSinker&) = delete;

  bool Start() override;
  void Stop() override;
  void PushPacket(QZ_MediaPacketRefPtr packet) override;
  QZ_INT32 GetType() const override;

  void ClearPostUserDataQueue();
  void PostUserData(std::shared_ptr<PublisherUserData>& user_data);
  void SetRtspServers(const std::vector<void*>& rtsp_servers);
  void SetVideoKBitrate(QZ_UINT32 kbitrate);

 private:
  friend class RtspSinkerTestPeer;

  // Lifecycle.
  bool StartSendThread();
  void StopSendThread();
  bool IsSendThreadExit() const;
  static void* SendThreadFun(void* arg);

  // Queue and send loop.
  using PacketList = std::list<QZ_MediaPacketRefPtr>;
  QZ_MediaPacketRefPtr PopPacket();
  // Removes one queue entry and its push stamp; returns the next entry.
  // Caller holds packet_rmutex_.
  PacketList::iterator EraseQueued(PacketList::iterator pos);
  void SaveInitPacket(QZ_MediaPacketRefPtr packet);
  bool IsCanInitRtsp() const;
  void Process();
  void TrimStoppedBacklog();

  // Falling behind.
  QZ_UINT64 GetVideoDelayTime();
  void DropPacket(QZ_UINT64 delay_time);
  int GetSleepCount(int seed);
  void SleepDropPacket(int sleepCount);

  // Session and codec configuration.
  void ResetSessionState();
  bool InitRtsp();
  void UnInitRtsp();
  void SetSpsPps(const std::vector<unsigned char>& sps, const std::vector<unsigned char>& pps);
  void SetVpsSpsPps(const std::vector<unsigned char>& vps,
                    const std::vector<unsigned char>& sps,
                    const std::vector<unsigned char>& pps);
  void SetAACAudioSpecificConfig(const std::vector<unsigned char>& audio_specific_config);
  void NotifyRtspURLs();
  void FireRtspURLEvent(QZ_HANDLE rtsp_server_handle, const std::string& url);

  // NAL scanning and buffers.
  QZ_UINT8* FindNalStartCode(QZ_UINT8* buf, int size, int& len) const;
  QZ_UINT8* FindNalType(QZ_UINT8* buf, int size, int type, int& startCodeLen, int* nalLen) const;
  std::shared_ptr<QZRtspPacketData> MakeAUD() const;
  std::shared_ptr<QZRtspPacketData> MakeRtspPacketData(const QZ_BYTE* data, QZ_INT32 size) const;

  // Video.
  void SendVideoPacket(QZ_MediaPacketRefPtr packet);
  void SendH264Packet(QZ_MediaPacketRefPtr packet);
  void SendH264RemoveStartCode(QZ_MediaPacketRefPtr packet);
  std::shared_ptr<QZRtspVideoPacket> MakeRtspPacket(QZ_MediaPacketRefPtr packet);
  void AppendH264Units(QZ_MediaPacketRefPtr packet,
                       int type,
                       QZRtspVideoPacket& record,
                       const char* missing_log);
  void SendH265Packet(QZ_MediaPacketRefPtr packet);
  void UpdateH265ParameterSets(QZ_MediaPacketRefPtr packet,
                               const qz_h2645::NalUnitList& nal_unit_list);
  void SendH265NalUnits(QZ_MediaPacketRefPtr packet, const qz_h2645::NalUnitList& nal_unit_list);
  std::shared_ptr<QZRtspVideoPacket> MakeRtspH265Packet(QZ_MediaPacketRefPtr packet,
                                                        const qz_h2645::NalUnitList& nal_unit_list);

  // Audio.
  void SendAudioPacket(QZ_MediaPacketRefPtr packet);
  void SendG711Packet(QZ_MediaPacketRefPtr packet);
  void SendAACPacket(QZ_MediaPacketRefPtr packet);
  void SendSpeexPacket(QZ_MediaPacketRefPtr packet);
  void SendAACRawFrame(QZ_MediaPacketRefPtr packet);
  void SendAudioFrame(QZ_MediaPacketRefPtr packet,
                      QZ_INT32 default_sample_rate,
                      QZ_INT32 default_channels);

  std::shared_ptr<QZRtspAudioPacket> MakeAudioRecord(QZ_MediaPacketRefPtr packet,
                                                     QZ_MEDIA_CODEC_ID codec_id,
                                                     QZ_INT32 sample_rate,
                                                     QZ_INT32 channels) const;

  // Posts one record, the same shared object, into every pipe in ascending
  // handle order.
  template <class Record>
  void PostToPiples(std::shared_ptr<Record>& record);

  bool is_init_;
  std::string stream_name_;
  bool is_has_auido_;
  bool is_has_video_;
  bool is_recv_audio_;  // guarded by packet_rmutex_
  bool is_recv_video_;  // guarded by packet_rmutex_
  bool is_send_first_frame_;
  QZ_UINT64 send_first_frame_timestamp_;
  bool is_first_audio_;
  QZ_UINT64 first_audio_time_;
  bool is_first_video_;
  QZ_UINT64 first_video_time_;
  bool is_setting_video_vps_sps_pps_;
  bool is_setting_audio_spec_config_;
  std::vector<unsigned char> vps_;
  std::vector<unsigned char> sps_;
  std::vector<unsigned char> pps_;
  std::vector<unsigned char> audio_specific_config_;
  QZ_INT32 sample_rate_;
  QZ_INT32 channels_;
  QZ_UINT32 video_kbitrate_;
  bool is_no_complete_video_packet_drop_;
  QZ_MediaPacketRefPtr init_audio_packet_;
  QZ_MediaPacketRefPtr init_video_packet_;
  QZ_UINT64 setting_init_auido_packet_time_;
  QZ_UINT64 setting_init_video_packet_time_;
  std::vector<void*> rtsp_servers_;
  std::map<void*, std::shared_ptr<QZRtspPacketPiple>> handle_2_piple_;
  std::recursive_mutex packet_rmutex_;  // guards the queue, its push stamps, the is_recv_ flags
  PacketList packet_list_;
  // When each queued packet was pushed (steady_clock µs), so that the records
  // built from it carry the push time for the server's push-to-written delay.
  // Kept beside the queue rather than in the packet: one packet is shared by
  // every sink of the publisher and must not be written by any of them. A
  // packet queued twice keeps its first stamp until both entries are gone.
  struct PushStamp {
    long long pushed_us;
    int entries;
  };
  std::unordered_map<const QZMediaPacket*, PushStamp> push_stamps_;
  // The push stamp of the packet the send thread popped last: the one it is
  // sending. Send thread only.
  long long popped_pushed_us_;
  std::unique_ptr<PublisherUserDataQueue> user_data_queue_;
  std::atomic_bool is_send_thread_exit_;
  std::atomic_bool is_send_thread_running_;
  pthread_t send_thread_;
  QZ_NAMESPACE::EventMgr* event_mgr_;
  // pthread_create succeeded for send_thread_, so it may be joined.
  bool is_send_thread_created_;
};

namespace internal {
inline void PostRecord(QZRtspPacketPiple& piple, std::shared_ptr<QZRtspVideoPacket>& record) {
  piple.PostVideoPacket(record);
}
inline void PostRecord(QZRtspPacketPiple& piple, std::shared_ptr<QZRtspAudioPacket>& record) {
  piple.PostAudioPacket(record);
}
}  // namespace internal

template <class Record>
void RtspSinker::PostToPiples(std::shared_ptr<Record>& record) {
  for (auto& entry : handle_2_piple_) {
    if (entry.second) {
      internal::PostRecord(*entry.second, record);
    }
  }
}

}  // namespace qz_publisher

#endif  // PUBLISHER_QZ_RTSP_SINKER_H_
