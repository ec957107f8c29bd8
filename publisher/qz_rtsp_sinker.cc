// RtspSinker: construction, lifecycle of the send thread and the setters.
#include "publisher/qz_rtsp_sinker.h"

#include <cassert>

#include "utility/qz_log.h"

namespace qz_publisher {

using qz_utility::LogFormat;
using qz_utility::LogLine;

RtspSinker::RtspSinker(QZ_NAMESPACE::EventMgr* event_mgr,
                       const std::string& stream_name,
                       bool is_has_auido,
                       bool is_has_video,
                       QZ_INT32 user_data_queue_max_size)
    : MediaSinker(),
      stream_name_(stream_name),
      is_has_auido_(is_has_auido),
      is_has_video_(is_has_video),
      user_data_queue_(new (std::nothrow) PublisherUserDataQueue(user_data_queue_max_size)),
      event_mgr_(event_mgr),
      is_send_thread_created_(false) {
  is_init_ = false;
  assert(!stream_name_.empty());
  is_recv_audio_ = false;
  is_recv_video_ = false;
  ResetSessionState();
  sample_rate_ = 44100;
  channels_ = 2;
  video_kbitrate_ = 0;
  setting_init_auido_packet_time_ = 0;
  setting_init_video_packet_time_ = 0;
  popped_pushed_us_ = 0;
  is_send_thread_exit_.store(false);
  is_send_thread_running_.store(false);
}

RtspSinker::~RtspSinker() {
  StopSendThread();
  UnInitRtsp();
}

bool RtspSinker::Start() {
  LogLine("VartoLogIOS [I] RtspSinker::Start++");
  if (is_init_) {
    LogLine("VartoLogIOS [I] RtspSinker::Start is running");
    return true;
  }
  if (!StartSendThread()) {
    return false;
  }
  is_init_ = true;
  LogLine("VartoLogIOS [I] RtspSinker::Start--");
  return true;
}

void RtspSinker::Stop() {
  if (!is_init_) {
    return;
  }
  LogLine("VartoLogIOS [I] RtspSinker::Stop++");
  StopSendThread();
  UnInitRtsp();
  is_init_ = false;
  LogLine("VartoLogIOS [I] RtspSinker::Stop--");
}

QZ_INT32 RtspSinker::GetType() const {
  return SinkerTypeRtsp;
}

bool RtspSinker::StartSendThread() {
  if (is_send_thread_running_.load()) {
    return false;
  }
  is_send_thread_exit_.store(false);
  {
    // PushPacket reads the running flag under this lock to decide whether
    // the queue must bound itself.
    std::lock_guard<std::recursive_mutex> lock(packet_rmutex_);
    is_send_thread_running_.store(true);
  }
  LogLine("VartoLogIOS [I] RtspSinker::StartSendThread++");
  const int ret = pthread_create(&send_thread_, nullptr, &RtspSinker::SendThreadFun, this);
  is_send_thread_created_ = (ret == 0);
  LogFormat("VartoLogIOS [I] RtspSinker::StartSendThread--, ret:%d\n", ret);
  return true;
}

void RtspSinker::StopSendThread() {
  if (!is_send_thread_running_.load()) {
    return;
  }
  is_send_thread_exit_.store(true);
  // A failed pthread_create leaves no thread to join; report it as ESRCH.
  int ret = 3;
  if (is_send_thread_created_) {
    ret = pthread_join(send_thread_, nullptr);
    is_send_thread_created_ = false;
  }
  LogFormat("VartoLogIOS [I] rtsp sinker stop thread ret=%d\n", ret);
  {
    std::lock_guard<std::recursive_mutex> lock(packet_rmutex_);
    is_send_thread_running_.store(false);
  }
}

bool RtspSinker::IsSendThreadExit() const {
  return is_send_thread_exit_.load();
}

void* RtspSinker::SendThreadFun(void* arg) {
  if (arg != nullptr) {
    static_cast<RtspSinker*>(arg)->Process();
  }
  return nullptr;
}

void RtspSinker::SetRtspServers(const std::vector<void*>& rtsp_servers) {
  LogLine("VartoLogIOS [I] RtspSinker::SetRtspServers..");
  if (&rtsp_servers != &rtsp_servers_) {
    rtsp_servers_ = rtsp_servers;
  }
}

void RtspSinker::SetVideoKBitrate(QZ_UINT32 kbitrate) {
  LogFormat("VartoLogIOS [I] RtspSinker::SetVideoKBitrate..kbitrate:%d\n",
            static_cast<int>(kbitrate));
  video_kbitrate_ = kbitrate;
}

void RtspSinker::PostUserData(std::shared_ptr<PublisherUserData>& user_data) {
  if (!user_data) {
    return;
  }
  if (user_data_queue_) {
    user_data_queue_->Push(user_data);
  }
}

void RtspSinker::ClearPostUserDataQueue() {
  if (user_data_queue_) {
    user_data_queue_->Clear();
  }
}

}  // namespace qz_publisher
