#include "tools/qz_rtsp_publish/test_source.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/channel_layout.h>
#include <libavutil/opt.h>
}

#include <chrono>
#include <cmath>
#include <cstring>
#include <string>
#include <vector>

#include "tools/qz_rtsp_publish/annexb.h"
#include "tools/qz_rtsp_publish/test_picture.h"

namespace qz_tools {
namespace {

std::string AvError(int code) {
  char text[AV_ERROR_MAX_STRING_SIZE] = {0};
  av_strerror(code, text, sizeof(text));
  return text;
}

}  // namespace

TestSource::TestSource(const PublishOptions& options) : options_(options) {}

TestSource::~TestSource() {
  Stop();
  avcodec_free_context(&video_);
  avcodec_free_context(&audio_);
}

bool TestSource::Open(std::string* error) {
  const bool h265 = options_.video == "h265";
  const char* name = h265 ? "libx265" : "libx264";
  const AVCodec* codec = avcodec_find_encoder_by_name(name);
  if (codec == nullptr) {
    *error = std::string("encoder ") + name + " is not available";
    return false;
  }
  video_ = avcodec_alloc_context3(codec);
  video_->width = options_.width;
  video_->height = options_.height;
  video_->time_base = AVRational{1, options_.fps};
  video_->framerate = AVRational{options_.fps, 1};
  video_->pix_fmt = AV_PIX_FMT_YUV420P;
  video_->bit_rate = static_cast<int64_t>(options_.kbitrate) * 1000;
  video_->gop_size = options_.fps * options_.gop_seconds;
  video_->max_b_frames = 0;  // as a phone's encoder: decode order is display order
  av_opt_set(video_->priv_data, "preset", "ultrafast", 0);
  av_opt_set(video_->priv_data, "tune", "zerolatency", 0);
  av_opt_set(video_->priv_data, "forced-idr", "1", 0);
  if (h265) {
    av_opt_set(video_->priv_data, "x265-params",
               options_.verbose ? "repeat-headers=1:scenecut=0:open-gop=0"
                                : "repeat-headers=1:log-level=error:scenecut=0:open-gop=0",
               0);
  } else {
    av_opt_set(video_->priv_data, "x264-params", "scenecut=0", 0);
  }
  int ret = avcodec_open2(video_, codec, nullptr);
  if (ret < 0) {
    *error = std::string("cannot open ") + name + ": " + AvError(ret);
    return false;
  }
  if (!has_audio()) {
    return true;
  }
  const bool aac = options_.audio == "aac";
  const AVCodec* acodec = avcodec_find_encoder_by_name(aac                        ? "aac"
                                                       : options_.audio == "pcma" ? "pcm_alaw"
                                                                                  : "pcm_mulaw");
  if (acodec == nullptr) {
    *error = "audio encoder for " + options_.audio + " is not available";
    return false;
  }
  audio_ = avcodec_alloc_context3(acodec);
  audio_->sample_rate = aac ? 48000 : 8000;
  audio_->sample_fmt = aac ? AV_SAMPLE_FMT_FLTP : AV_SAMPLE_FMT_S16;
  av_channel_layout_default(&audio_->ch_layout, 1);
  audio_->bit_rate = aac ? 64000 : 64000;
  audio_->time_base = AVRational{1, audio_->sample_rate};
  if (aac) {
    audio_->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;  // AudioSpecificConfig in extradata
  }
  ret = avcodec_open2(audio_, acodec, nullptr);
  if (ret < 0) {
    *error = "cannot open the " + options_.audio + " encoder: " + AvError(ret);
    return false;
  }
  if (aac && audio_->extradata != nullptr) {
    audio_config_.assign(audio_->extradata, audio_->extradata + audio_->extradata_size);
  }
  return true;
}

void TestSource::Start(PushFn push) {
  push_ = std::move(push);
  start_ms_ = MonotonicMs();
  stop_ = false;
  video_thread_ = std::thread(&TestSource::VideoLoop, this);
  if (audio_ != nullptr) {
    audio_thread_ = std::thread(&TestSource::AudioLoop, this);
  }
}

void TestSource::Stop() {
  stop_ = true;
  if (video_thread_.joinable())
    video_thread_.join();
  if (audio_thread_.joinable())
    audio_thread_.join();
}

void TestSource::OnStreamAnnounced() {
  // The request is stored first: a frame that sees announced_ set also sees
  // it, so the first frame coded normally is still a key frame.
  key_frame_requested_ = true;
  announced_ = true;
}

void TestSource::Drain(AVCodecContext* encoder, AVPacket* packet, bool flush) {
  if (flush) {
    avcodec_send_frame(encoder, nullptr);
  }
  const bool video = encoder == video_;
  const bool h265 = options_.video == "h265";
  const QZ_MEDIA_CODEC_ID codec = video ? (h265 ? QZ_MEDIA_CODEC_ID_H265 : QZ_MEDIA_CODEC_ID_H264)
                                  : options_.audio == "aac"  ? QZ_MEDIA_CODEC_ID_AAC
                                  : options_.audio == "pcma" ? QZ_MEDIA_CODEC_ID_PCMA
                                                             : QZ_MEDIA_CODEC_ID_PCMU;
  while (avcodec_receive_packet(encoder, packet) == 0) {
    const size_t size = static_cast<size_t>(packet->size);
    // Both media are stamped with their capture time on the monotonic
    // clock, counted from the same start: video by its capture slot (the
    // pts counts slots), audio by the samples captured before it.
    const long long ts =
        start_ms_ + (video ? packet->pts * 1000 / options_.fps
                           : av_rescale_q(packet->pts, encoder->time_base, AVRational{1, 1000}));
    const bool key = video && (packet->flags & AV_PKT_FLAG_KEY) != 0;
    auto media = MakeMediaPacket(video, codec, packet->data, size, key, ts);
    if (key) {
      AttachParameterSets(*media, h265, packet->data, size, std::vector<uint8_t>());
    }
    if (!video) {
      qz_publisher::QZMediaPacket::AudioInfo info(encoder->sample_rate, 1);
      media->SetAudioInfo(&info);
      if (!audio_config_.empty()) {
        media->SetExtraData("AudioSpecificConfig", audio_config_);
      }
    }
    push_(media);
    av_packet_unref(packet);
  }
}

void TestSource::VideoLoop() {
  AVFrame* frame = av_frame_alloc();
  frame->format = AV_PIX_FMT_YUV420P;
  frame->width = options_.width;
  frame->height = options_.height;
  av_frame_get_buffer(frame, 0);
  AVPacket* packet = av_packet_alloc();
  TestPicture picture(options_.width, options_.height);
  const int fps = options_.fps;
  // Like a camera at `fps`: picture n is captured at the start of slot n.
  auto capture_ms = [this, fps](long long slot) { return start_ms_ + slot * 1000 / fps; };
  long long slot = 0;
  while (!stop_.load()) {
    SleepUntil(capture_ms(slot), stop_);
    if (stop_.load())
      break;
    av_frame_make_writable(frame);
    picture.Draw(slot, capture_ms(slot) - start_ms_, frame->data, frame->linesize);
    frame->pts = slot;  // time base 1/fps: the capture time
    const bool key = !announced_.load() || key_frame_requested_.exchange(false);
    frame->pict_type = key ? AV_PICTURE_TYPE_I : AV_PICTURE_TYPE_NONE;
    if (avcodec_send_frame(video_, frame) < 0)
      break;
    if (options_.slow_encoder_ms > 0) {
      SleepUntil(MonotonicMs() + options_.slow_encoder_ms, stop_);
    }
    Drain(video_, packet, false);
    // The camera went on capturing while the encoder worked: the next frame
    // is the newest picture, and those whose slots passed meanwhile are lost.
    const long long newest = (MonotonicMs() - start_ms_) * fps / 1000;
    const long long next = std::max(slot + 1, newest);
    dropped_frames_ += next - slot - 1;
    slot = next;
  }
  Drain(video_, packet, true);
  av_packet_free(&packet);
  av_frame_free(&frame);
}

void TestSource::AudioLoop() {
  const bool aac = options_.audio == "aac";
  const int rate = audio_->sample_rate;
  const int samples = aac ? audio_->frame_size : rate / 50;  // G.711: 20 ms frames
  AVFrame* frame = av_frame_alloc();
  frame->format = audio_->sample_fmt;
  frame->nb_samples = samples;
  frame->sample_rate = rate;
  av_channel_layout_copy(&frame->ch_layout, &audio_->ch_layout);
  av_frame_get_buffer(frame, 0);
  AVPacket* packet = av_packet_alloc();
  long long produced = 0;
  while (!stop_.load()) {
    // A frame is captured when its last sample is: paced by the sample
    // count on the monotonic clock, the clock the video slots run on.
    SleepUntil(start_ms_ + (produced + samples) * 1000 / rate, stop_);
    if (stop_.load())
      break;
    av_frame_make_writable(frame);
    for (int i = 0; i < samples; ++i) {
      // A 440 Hz tone with a short 880 Hz beep at every full second.
      const long long n = produced + i;
      const bool beep = (n % rate) < rate / 10;
      const double value = 0.3 * std::sin(2 * M_PI * (beep ? 880.0 : 440.0) * n / rate);
      if (aac) {
        reinterpret_cast<float*>(frame->data[0])[i] = static_cast<float>(value);
      } else {
        reinterpret_cast<int16_t*>(frame->data[0])[i] = static_cast<int16_t>(value * 32767);
      }
    }
    frame->pts = produced;
    produced += samples;
    if (avcodec_send_frame(audio_, frame) < 0)
      break;
    Drain(audio_, packet, false);
  }
  Drain(audio_, packet, true);
  av_packet_free(&packet);
  av_frame_free(&frame);
}

}  // namespace qz_tools
