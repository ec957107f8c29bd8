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

namespace qz_tools {
namespace {

// 5x7 digits for the clock drawn into the picture: one byte a row, five bits.
const uint8_t kFont[12][7] = {
    {0x0E, 0x11, 0x13, 0x15, 0x19, 0x11, 0x0E}, {0x04, 0x0C, 0x04, 0x04, 0x04, 0x04, 0x0E},
    {0x0E, 0x11, 0x01, 0x02, 0x04, 0x08, 0x1F}, {0x1F, 0x02, 0x04, 0x02, 0x01, 0x11, 0x0E},
    {0x02, 0x06, 0x0A, 0x12, 0x1F, 0x02, 0x02}, {0x1F, 0x10, 0x1E, 0x01, 0x01, 0x11, 0x0E},
    {0x06, 0x08, 0x10, 0x1E, 0x11, 0x11, 0x0E}, {0x1F, 0x01, 0x02, 0x04, 0x08, 0x08, 0x08},
    {0x0E, 0x11, 0x11, 0x0E, 0x11, 0x11, 0x0E}, {0x0E, 0x11, 0x11, 0x0F, 0x01, 0x02, 0x0C},
    {0x00, 0x0C, 0x0C, 0x00, 0x0C, 0x0C, 0x00},  // ':'
    {0x00, 0x00, 0x00, 0x00, 0x00, 0x0C, 0x0C},  // '.'
};

void DrawText(AVFrame* frame, const std::string& text, int x0, int y0, int scale) {
  for (size_t c = 0; c < text.size(); ++c) {
    int glyph = text[c] == ':' ? 10 : text[c] == '.' ? 11 : text[c] - '0';
    if (glyph < 0 || glyph > 11) {
      continue;
    }
    for (int row = 0; row < 7; ++row) {
      for (int col = 0; col < 5; ++col) {
        const bool on = (kFont[glyph][row] >> (4 - col)) & 1;
        for (int dy = 0; dy < scale; ++dy) {
          const int y = y0 + row * scale + dy;
          if (y < 0 || y >= frame->height)
            continue;
          for (int dx = 0; dx < scale; ++dx) {
            const int x = x0 + (static_cast<int>(c) * 6 + col) * scale + dx;
            if (x < 0 || x >= frame->width)
              continue;
            frame->data[0][y * frame->linesize[0] + x] = on ? 235 : 16;
          }
        }
      }
    }
  }
}

// Colour bars that scroll, a box that bounces, and the running time.
void DrawPicture(AVFrame* frame, long long index, int fps) {
  const int w = frame->width;
  const int h = frame->height;
  const int shift = static_cast<int>(index * 4 % w);
  for (int y = 0; y < h; ++y) {
    uint8_t* row = frame->data[0] + y * frame->linesize[0];
    for (int x = 0; x < w; ++x) {
      row[x] = static_cast<uint8_t>(40 + ((x + shift) * 8 / w) * 24 + (y * 32 / h));
    }
  }
  for (int y = 0; y < h / 2; ++y) {
    uint8_t* u = frame->data[1] + y * frame->linesize[1];
    uint8_t* v = frame->data[2] + y * frame->linesize[2];
    for (int x = 0; x < w / 2; ++x) {
      const int band = ((x * 2 + shift) * 8 / w) % 8;
      u[x] = static_cast<uint8_t>(64 + band * 20);
      v[x] = static_cast<uint8_t>(200 - band * 18);
    }
  }
  const int box = h / 6;
  const int period = 2 * (w - box);
  int bx = static_cast<int>((index * 8) % period);
  if (bx > w - box)
    bx = period - bx;
  for (int y = h - box - h / 12; y < h - h / 12; ++y) {
    std::memset(frame->data[0] + y * frame->linesize[0] + bx, 235, static_cast<size_t>(box));
  }
  const long long ms = index * 1000 / fps;
  char text[32];
  snprintf(text, sizeof(text), "%02lld:%02lld:%02lld.%03lld", ms / 3600000, ms / 60000 % 60,
           ms / 1000 % 60, ms % 1000);
  const int scale = std::max(2, w / 120);
  DrawText(frame, text, w / 16, h / 8, scale);
  snprintf(text, sizeof(text), "%lld", index);
  DrawText(frame, text, w / 16, h / 8 + 9 * scale, scale / 2 + 1);
}

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
               "repeat-headers=1:log-level=error:scenecut=0:open-gop=0", 0);
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

void TestSource::VideoLoop() {
  const bool h265 = options_.video == "h265";
  const QZ_MEDIA_CODEC_ID codec = h265 ? QZ_MEDIA_CODEC_ID_H265 : QZ_MEDIA_CODEC_ID_H264;
  AVFrame* frame = av_frame_alloc();
  frame->format = AV_PIX_FMT_YUV420P;
  frame->width = options_.width;
  frame->height = options_.height;
  av_frame_get_buffer(frame, 0);
  AVPacket* packet = av_packet_alloc();
  const std::vector<uint8_t> no_extradata;
  for (long long index = 0; !stop_.load(); ++index) {
    // Capture time of this frame on the monotonic clock, in milliseconds.
    const long long capture_ms = start_ms_ + index * 1000 / options_.fps;
    SleepUntil(capture_ms, stop_);
    if (stop_.load())
      break;
    av_frame_make_writable(frame);
    DrawPicture(frame, index, options_.fps);
    frame->pts = index;
    frame->pict_type =
        key_frame_requested_.exchange(false) ? AV_PICTURE_TYPE_I : AV_PICTURE_TYPE_NONE;
    if (avcodec_send_frame(video_, frame) < 0)
      break;
    while (avcodec_receive_packet(video_, packet) == 0) {
      const bool key = (packet->flags & AV_PKT_FLAG_KEY) != 0;
      const long long ts = start_ms_ + packet->pts * 1000 / options_.fps;
      auto media =
          MakeMediaPacket(true, codec, packet->data, static_cast<size_t>(packet->size), key, ts);
      if (key) {
        AttachParameterSets(*media, h265, packet->data, static_cast<size_t>(packet->size),
                            no_extradata);
      }
      push_(media);
      av_packet_unref(packet);
    }
  }
  av_packet_free(&packet);
  av_frame_free(&frame);
}

void TestSource::AudioLoop() {
  const bool aac = options_.audio == "aac";
  const QZ_MEDIA_CODEC_ID codec = aac                        ? QZ_MEDIA_CODEC_ID_AAC
                                  : options_.audio == "pcma" ? QZ_MEDIA_CODEC_ID_PCMA
                                                             : QZ_MEDIA_CODEC_ID_PCMU;
  const int rate = audio_->sample_rate;
  const int samples = aac ? audio_->frame_size : rate / 50;  // G.711: 20 ms frames
  std::vector<uint8_t> config;
  if (aac && audio_->extradata != nullptr) {
    config.assign(audio_->extradata, audio_->extradata + audio_->extradata_size);
  }
  AVFrame* frame = av_frame_alloc();
  frame->format = audio_->sample_fmt;
  frame->nb_samples = samples;
  frame->sample_rate = rate;
  av_channel_layout_copy(&frame->ch_layout, &audio_->ch_layout);
  av_frame_get_buffer(frame, 0);
  AVPacket* packet = av_packet_alloc();
  long long produced = 0;
  while (!stop_.load()) {
    SleepUntil(start_ms_ + produced * 1000 / rate, stop_);
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
    while (avcodec_receive_packet(audio_, packet) == 0) {
      const long long ts =
          start_ms_ + av_rescale_q(packet->pts, audio_->time_base, AVRational{1, 1000});
      auto media =
          MakeMediaPacket(false, codec, packet->data, static_cast<size_t>(packet->size), false, ts);
      qz_publisher::QZMediaPacket::AudioInfo info(rate, 1);
      media->SetAudioInfo(&info);
      if (!config.empty()) {
        media->SetExtraData("AudioSpecificConfig", config);
      }
      push_(media);
      av_packet_unref(packet);
    }
  }
  av_packet_free(&packet);
  av_frame_free(&frame);
}

}  // namespace qz_tools
