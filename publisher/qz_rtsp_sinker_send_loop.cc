// RtspSinker: the timestamp-ordered packet queue, the send loop of the send
// thread, and the drop policy that keeps queued video from piling up.
#include <algorithm>
#include <cassert>
#include <chrono>

#include "publisher/qz_rtsp_sinker.h"
#include "utility/qz_log.h"
#include "utility/qz_utility.h"

namespace qz_publisher {
namespace {

using qz_utility::LogFormat;
using qz_utility::LogLine;

// How long the send loop waits after the first packet of one medium for the
// first of the other before it creates the pipes with what it has.
constexpr QZ_UINT64 max_init_wait_time = 5000;

constexpr QZ_UINT64 kModerateDropDelayMs = 2500;
constexpr QZ_UINT64 kHeavyDropDelayMs = 3500;
constexpr int kModerateMinFrames = 3;
constexpr int kModerateMinKeyFrames = 1;
constexpr long long kHeavyKeepMs = 2500;
constexpr long long kHeavyThresholdMarginMs = 1000;

// While no send thread runs nothing empties the queue, so PushPacket keeps
// only about this much of the newest media. A viewer that joins later wants
// the live edge, not a backlog of minutes.
constexpr long long kStoppedBacklogSpanMs = 3000;
// Bounds the queue even when timestamps do not advance.
constexpr size_t kStoppedBacklogMaxPackets = 2048;

bool IsVideo(const QZ_MediaPacketRefPtr& packet) {
  return packet->GetMediaType() == QZMediaPacket::MediaTypeVideo;
}

bool IsAudio(const QZ_MediaPacketRefPtr& packet) {
  return packet->GetMediaType() == QZMediaPacket::MediaTypeAudio;
}

}  // namespace

void RtspSinker::PushPacket(QZ_MediaPacketRefPtr packet) {
  if (!packet) {
    return;
  }
  const long long pushed_us = std::chrono::duration_cast<std::chrono::microseconds>(
                                  std::chrono::steady_clock::now().time_since_epoch())
                                  .count();
  std::lock_guard<std::recursive_mutex> lock(packet_rmutex_);
  if (IsVideo(packet) && !is_recv_video_) {
    is_recv_video_ = true;
  } else if (IsAudio(packet) && !is_recv_audio_) {
    is_recv_audio_ = true;
  }
  PushStamp& stamp = push_stamps_.emplace(packet.get(), PushStamp{pushed_us, 0}).first->second;
  ++stamp.entries;
  const long long t = packet->TimeStamp();
  if (!packet_list_.empty() && t >= packet_list_.back()->TimeStamp()) {
    packet_list_.push_back(packet);
  } else {
    auto pos = packet_list_.begin();
    for (; pos != packet_list_.end(); ++pos) {
      assert(*pos);
      if ((*pos)->TimeStamp() > t) {
        break;
      }
    }
    packet_list_.insert(pos, packet);
  }
  if (!is_send_thread_running_.load()) {
    TrimStoppedBacklog();
  }
}

RtspSinker::PacketList::iterator RtspSinker::EraseQueued(PacketList::iterator pos) {
  auto stamp = push_stamps_.find(pos->get());
  if (stamp != push_stamps_.end() && --stamp->second.entries <= 0) {
    push_stamps_.erase(stamp);
  }
  return packet_list_.erase(pos);
}

// Keeps the newest kStoppedBacklogSpanMs of the queue. The cut is made at the
// oldest video key frame inside that span, so that what remains can be
// decoded from its first frame; older audio goes with it so that audio and
// video restart together. Without a key frame in the span the remaining video
// could never be decoded and is dropped whole.
void RtspSinker::TrimStoppedBacklog() {
  if (packet_list_.empty()) {
    return;
  }
  const long long newest = packet_list_.back()->TimeStamp();
  long long span = 0;
  if (__builtin_sub_overflow(newest, packet_list_.front()->TimeStamp(), &span) ||
      span > kStoppedBacklogSpanMs) {
    long long window_start = 0;
    if (__builtin_sub_overflow(newest, kStoppedBacklogSpanMs, &window_start)) {
      window_start = newest;
    }
    auto cut = packet_list_.begin();
    for (; cut != packet_list_.end(); ++cut) {
      if (IsVideo(*cut) && (*cut)->IsKeyFrame() && (*cut)->TimeStamp() >= window_start) {
        break;
      }
    }
    if (cut != packet_list_.end()) {
      while (packet_list_.begin() != cut) {
        EraseQueued(packet_list_.begin());
      }
    } else {
      for (auto it = packet_list_.begin(); it != packet_list_.end();) {
        if (IsVideo(*it) || (*it)->TimeStamp() < window_start) {
          it = EraseQueued(it);
        } else {
          ++it;
        }
      }
    }
  }
  while (packet_list_.size() > kStoppedBacklogMaxPackets) {
    EraseQueued(packet_list_.begin());
  }
}

QZ_MediaPacketRefPtr RtspSinker::PopPacket() {
  std::lock_guard<std::recursive_mutex> lock(packet_rmutex_);
  if (packet_list_.empty()) {
    return QZ_MediaPacketRefPtr();
  }
  QZ_MediaPacketRefPtr packet = packet_list_.front();
  auto stamp = push_stamps_.find(packet.get());
  popped_pushed_us_ = stamp != push_stamps_.end() ? stamp->second.pushed_us : 0;
  EraseQueued(packet_list_.begin());
  return packet;
}

void RtspSinker::SaveInitPacket(QZ_MediaPacketRefPtr packet) {
  if (!packet) {
    return;
  }
  if (IsVideo(packet)) {
    if (!init_video_packet_) {
      init_video_packet_ = packet;
      setting_init_video_packet_time_ = qz_utility::GetCurrentTimeMS();
    } else if (packet->IsKeyFrame()) {
      init_video_packet_ = packet;
    }
  } else if (IsAudio(packet)) {
    if (!init_audio_packet_) {
      setting_init_auido_packet_time_ = qz_utility::GetCurrentTimeMS();
    }
    init_audio_packet_ = packet;
  }
}

bool RtspSinker::IsCanInitRtsp() const {
  const bool has_audio = init_audio_packet_;
  const bool has_video = init_video_packet_;
  if (has_audio && has_video) {
    return true;
  }
  if (!has_audio && !has_video) {
    return false;
  }
  if (has_video) {
    return !is_has_auido_ ||
           qz_utility::GetCurrentTimeMS() > setting_init_video_packet_time_ + max_init_wait_time;
  }
  return !is_has_video_ ||
         qz_utility::GetCurrentTimeMS() > setting_init_auido_packet_time_ + max_init_wait_time;
}

void RtspSinker::Process() {
  LogLine("VartoLogIOS [I] RtspSinker::Process++");
  bool is_init_rtsp = false;
  int initFailedCount = 0;
  while (!IsSendThreadExit()) {
    QZ_MediaPacketRefPtr packet = PopPacket();
    if (!packet) {
      qz_utility::SleepMs(10);
      continue;
    }
    if (!is_init_rtsp) {
      SaveInitPacket(packet);
      if (!IsCanInitRtsp()) {
        qz_utility::SleepMs(5);
        continue;
      }
      is_init_rtsp = InitRtsp();
      LogLine("VartoLogIOS [I] RtspSinker init");
      if (IsSendThreadExit()) {
        break;
      }
      if (!is_init_rtsp) {
        ++initFailedCount;
        const int sleepCount = GetSleepCount(initFailedCount);
        LogFormat("VartoLogIOS [I] RtspSinker initFailedCount=%d, sleepCount=%d\n", initFailedCount,
                  sleepCount);
        SleepDropPacket(sleepCount);
        continue;
      }
      initFailedCount = 0;
    }
    NotifyRtspURLs();
    if (is_send_first_frame_) {
      is_send_first_frame_ = false;
      send_first_frame_timestamp_ = static_cast<QZ_UINT64>(packet->TimeStamp());
    }
    if (static_cast<QZ_UINT64>(packet->TimeStamp()) < send_first_frame_timestamp_) {
      LogFormat(
          "VartoLogIOS [E] RtspSinker packet->TimeStamp() < "
          "send_first_frame_timestamp_,timestamp:%lld, send_first_frame_timestamp_=:%lld, frame "
          "media type=:%d\n",
          packet->TimeStamp(), static_cast<long long>(send_first_frame_timestamp_),
          static_cast<int>(packet->GetMediaType()));
      continue;
    }
    if (IsVideo(packet)) {
      if (is_no_complete_video_packet_drop_) {
        if (!packet->IsKeyFrame()) {
          continue;
        }
        is_no_complete_video_packet_drop_ = false;
      }
      SendVideoPacket(packet);
    } else if (IsAudio(packet)) {
      SendAudioPacket(packet);
    } else {
      assert(false);
      // Without assertions a packet of neither kind is dropped here, before
      // any send path or the drop policy sees it.
      continue;
    }
    const QZ_UINT64 delay_time = GetVideoDelayTime();
    DropPacket(delay_time);
  }
  if (is_init_rtsp) {
    UnInitRtsp();
  }
}

QZ_UINT64 RtspSinker::GetVideoDelayTime() {
  QZ_UINT64 begin_time = 0;
  QZ_UINT64 end_time = 0;
  {
    std::lock_guard<std::recursive_mutex> lock(packet_rmutex_);
    for (auto it = packet_list_.begin(); it != packet_list_.end(); ++it) {
      if (IsVideo(*it)) {
        begin_time = static_cast<QZ_UINT64>((*it)->TimeStamp());
        break;
      }
    }
    for (auto it = packet_list_.rbegin(); it != packet_list_.rend(); ++it) {
      if (IsVideo(*it)) {
        end_time = static_cast<QZ_UINT64>((*it)->TimeStamp());
        break;
      }
    }
  }
  if (end_time < begin_time) {
    return 0;
  }
  return end_time - begin_time;
}

void RtspSinker::DropPacket(QZ_UINT64 delay_time) {
  if (delay_time < kModerateDropDelayMs) {
    return;
  }
  std::lock_guard<std::recursive_mutex> lock(packet_rmutex_);
  const long long delay = static_cast<long long>(delay_time);
  if (delay_time <= kHeavyDropDelayMs) {
    int frame_count = 0;
    int key_frame_count = 0;
    for (const QZ_MediaPacketRefPtr& packet : packet_list_) {
      if (IsVideo(packet)) {
        ++frame_count;
        if (packet->IsKeyFrame()) {
          ++key_frame_count;
        }
      }
    }
    if (frame_count < kModerateMinFrames || key_frame_count < kModerateMinKeyFrames) {
      return;
    }
    for (auto it = packet_list_.begin(); it != packet_list_.end();) {
      if (!IsVideo(*it)) {
        ++it;
        continue;
      }
      if ((*it)->IsKeyFrame()) {
        break;
      }
      LogFormat(
          "VartoLogIOS [I] RtspSinker$$$##11 drop video nk frame timestamp=%lld, delay_t=%lld, "
          "c=%d, key=%d\n",
          (*it)->TimeStamp(), delay, frame_count, key_frame_count);
      it = EraseQueued(it);
    }
    return;
  }

  long long tail_time_stamp = 0;
  for (auto it = packet_list_.rbegin(); it != packet_list_.rend(); ++it) {
    if (IsVideo(*it)) {
      tail_time_stamp = (*it)->TimeStamp();
      break;
    }
  }
  long long stop_threshold = kHeavyKeepMs;
  long long margin_delay = 0;
  if (!__builtin_sub_overflow(delay, kHeavyThresholdMarginMs, &margin_delay)) {
    stop_threshold = std::min(margin_delay, kHeavyKeepMs);
  }
  int drop_count = 0;
  int drop_key_count = 0;
  for (auto it = packet_list_.begin(); it != packet_list_.end();) {
    if (!IsVideo(*it)) {
      ++it;
      continue;
    }
    if (!(*it)->IsKeyFrame()) {
      LogFormat(
          "VartoLogIOS [I] RtspSinker##$$22222 drop video nk frame timestamp=%lld, delay_t=%lld\n",
          (*it)->TimeStamp(), delay);
      is_no_complete_video_packet_drop_ = true;
      it = EraseQueued(it);
      ++drop_count;
      continue;
    }
    if (tail_time_stamp == 0) {
      break;
    }
    long long duration = 0;
    if (__builtin_sub_overflow(tail_time_stamp, (*it)->TimeStamp(), &duration)) {
      duration = 0;
    }
    if (duration >= stop_threshold) {
      LogFormat(
          "VartoLogIOS [I] RtspSinker###$$$3 drop video key frame timestamp=%lld, delay_t=%lld\n",
          (*it)->TimeStamp(), delay);
      is_no_complete_video_packet_drop_ = true;
      it = EraseQueued(it);
      ++drop_key_count;
      ++drop_count;
      continue;
    }
    is_no_complete_video_packet_drop_ = false;
    break;
  }
  LogFormat("VartoLogIOS [I] RtspSinker drop count=%d, drop key frame count=%d, delay_t=%lld\n",
            drop_count, drop_key_count, delay);
}

int RtspSinker::GetSleepCount(int seed) {
  if (seed < 1) {
    return 0;
  }
  // Saturate rather than overflow for absurd failure counts.
  if (seed > 1000) {
    return 1200;
  }
  const int count = 60 * seed - 40;
  return count < 1200 ? count : 1200;
}

void RtspSinker::SleepDropPacket(int sleepCount) {
  for (int i = 0; i < sleepCount; ++i) {
    while (PopPacket()) {
    }
    if (IsSendThreadExit()) {
      return;
    }
    qz_utility::SleepMs(10);
  }
}

}  // namespace qz_publisher
