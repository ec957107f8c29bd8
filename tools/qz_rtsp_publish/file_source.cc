#include "tools/qz_rtsp_publish/file_source.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavcodec/bsf.h>
#include <libavformat/avformat.h>
}

#include <chrono>

#include "tools/qz_rtsp_publish/annexb.h"

namespace qz_tools {
namespace {

std::string AvError(int code) {
  char text[AV_ERROR_MAX_STRING_SIZE] = {0};
  av_strerror(code, text, sizeof(text));
  return text;
}

// ADTS (ISO/IEC 13818-7): 12-bit sync 0xFFF. Returns the header length and
// builds the AudioSpecificConfig that the header implies.
size_t ParseAdts(const uint8_t* data,
                 size_t size,
                 std::vector<uint8_t>& config,
                 int& rate,
                 int& channels) {
  static const int kRates[13] = {96000, 88200, 64000, 48000, 44100, 32000, 24000,
                                 22050, 16000, 12000, 11025, 8000,  7350};
  if (size < 7 || data[0] != 0xFF || (data[1] & 0xF0) != 0xF0) {
    return 0;
  }
  const bool has_crc = (data[1] & 0x01) == 0;
  const int profile = (data[2] >> 6) & 0x3;  // object type - 1
  const int rate_index = (data[2] >> 2) & 0xF;
  const int channel_config = ((data[2] & 0x1) << 2) | (data[3] >> 6);
  if (rate_index > 12) {
    return 0;
  }
  const int object_type = profile + 1;
  config = {static_cast<uint8_t>((object_type << 3) | (rate_index >> 1)),
            static_cast<uint8_t>(((rate_index & 1) << 7) | (channel_config << 3))};
  rate = kRates[rate_index];
  channels = channel_config;
  const size_t header = has_crc ? 9 : 7;
  return header <= size ? header : 0;
}

}  // namespace

FileSource::FileSource(const PublishOptions& options) : options_(options) {}

FileSource::~FileSource() {
  Stop();
  av_bsf_free(&annexb_);
  avformat_close_input(&format_);
}

bool FileSource::Open(std::string* error) {
  int ret = avformat_open_input(&format_, options_.input.c_str(), nullptr, nullptr);
  if (ret < 0) {
    *error = "cannot open " + options_.input + ": " + AvError(ret);
    return false;
  }
  ret = avformat_find_stream_info(format_, nullptr);
  if (ret < 0) {
    *error = "cannot read " + options_.input + ": " + AvError(ret);
    return false;
  }
  for (unsigned i = 0; i < format_->nb_streams; ++i) {
    const AVCodecParameters* par = format_->streams[i]->codecpar;
    if (video_index_ < 0 &&
        (par->codec_id == AV_CODEC_ID_H264 || par->codec_id == AV_CODEC_ID_HEVC)) {
      video_index_ = static_cast<int>(i);
      h265_ = par->codec_id == AV_CODEC_ID_HEVC;
    } else if (audio_index_ < 0 &&
               (par->codec_id == AV_CODEC_ID_AAC || par->codec_id == AV_CODEC_ID_PCM_ALAW ||
                par->codec_id == AV_CODEC_ID_PCM_MULAW)) {
      audio_index_ = static_cast<int>(i);
      audio_codec_ = par->codec_id == AV_CODEC_ID_AAC        ? QZ_MEDIA_CODEC_ID_AAC
                     : par->codec_id == AV_CODEC_ID_PCM_ALAW ? QZ_MEDIA_CODEC_ID_PCMA
                                                             : QZ_MEDIA_CODEC_ID_PCMU;
      sample_rate_ = par->sample_rate;
      channels_ = par->ch_layout.nb_channels;
      if (par->extradata_size > 0) {
        audio_config_.assign(par->extradata, par->extradata + par->extradata_size);
      }
    }
  }
  if (video_index_ < 0 && audio_index_ < 0) {
    *error = options_.input + " has no H.264/H.265 video and no AAC/G.711 audio";
    return false;
  }
  if (video_index_ >= 0) {
    const AVBitStreamFilter* filter =
        av_bsf_get_by_name(h265_ ? "hevc_mp4toannexb" : "h264_mp4toannexb");
    if (filter == nullptr || av_bsf_alloc(filter, &annexb_) < 0) {
      *error = "the Annex-B bitstream filter is not available";
      return false;
    }
    AVStream* stream = format_->streams[video_index_];
    avcodec_parameters_copy(annexb_->par_in, stream->codecpar);
    annexb_->time_base_in = stream->time_base;
    if ((ret = av_bsf_init(annexb_)) < 0) {
      *error = "cannot convert the video to Annex-B: " + AvError(ret);
      return false;
    }
    const AVCodecParameters* par = stream->codecpar;
    if (par->extradata_size > 4 && par->extradata[0] == 0) {  // already Annex-B
      video_extradata_.assign(par->extradata, par->extradata + par->extradata_size);
    }
  }
  return true;
}

bool FileSource::Reopen() {
  avformat_close_input(&format_);
  if (avformat_open_input(&format_, options_.input.c_str(), nullptr, nullptr) < 0 ||
      avformat_find_stream_info(format_, nullptr) < 0) {
    return false;
  }
  const int needed = std::max(video_index_, audio_index_);
  return needed < static_cast<int>(format_->nb_streams);
}

void FileSource::Start(PushFn push) {
  push_ = std::move(push);
  stop_ = false;
  thread_ = std::thread(&FileSource::Loop, this);
}

void FileSource::Stop() {
  stop_ = true;
  if (thread_.joinable()) {
    thread_.join();
  }
}

void FileSource::PushVideo(AVPacket* packet, long long ts) {
  if (av_bsf_send_packet(annexb_, packet) < 0) {
    return;
  }
  AVPacket* out = av_packet_alloc();
  while (av_bsf_receive_packet(annexb_, out) == 0) {
    // The container's key flag also marks recovery points and open-GOP
    // I-frames, which the sinker would send as the start of a GOP.
    const bool key = IsRandomAccessPoint(out->data, static_cast<size_t>(out->size), h265_);
    auto media = MakeMediaPacket(true, h265_ ? QZ_MEDIA_CODEC_ID_H265 : QZ_MEDIA_CODEC_ID_H264,
                                 out->data, static_cast<size_t>(out->size), key, ts);
    if (key) {
      AttachParameterSets(*media, h265_, out->data, static_cast<size_t>(out->size),
                          video_extradata_);
    }
    push_(media);
    av_packet_unref(out);
  }
  av_packet_free(&out);
}

void FileSource::PushAudio(AVPacket* packet, long long ts) {
  const uint8_t* data = packet->data;
  size_t size = static_cast<size_t>(packet->size);
  if (audio_codec_ == QZ_MEDIA_CODEC_ID_AAC) {
    std::vector<uint8_t> config;
    int rate = 0, channels = 0;
    const size_t header = ParseAdts(data, size, config, rate, channels);
    if (header > 0) {
      // The sinker wants raw AAC and the configuration beside it.
      data += header;
      size -= header;
      audio_config_ = config;
      sample_rate_ = rate;
      channels_ = channels;
    }
  }
  if (size == 0) {
    return;
  }
  auto media = MakeMediaPacket(false, audio_codec_, data, size, false, ts);
  if (sample_rate_ > 0 && channels_ > 0) {
    qz_publisher::QZMediaPacket::AudioInfo info(sample_rate_, channels_);
    media->SetAudioInfo(&info);
  }
  if (!audio_config_.empty()) {
    media->SetExtraData("AudioSpecificConfig", audio_config_);
  }
  push_(media);
}

void FileSource::Loop() {
  AVPacket* packet = av_packet_alloc();
  const long long start_ms = MonotonicMs();
  long long loop_offset_ms = 0;  // media time at which the current pass began
  long long first_ms = -1;       // first timestamp of the file
  long long last_ms = 0;         // newest timestamp pushed, on the output time line
  while (!stop_.load()) {
    const int ret = av_read_frame(format_, packet);
    if (ret < 0) {
      if (!options_.loop) {
        break;
      }
      // Loop with continuous timestamps: the next pass starts one frame
      // after the last packet of this one.
      loop_offset_ms = last_ms + 40;
      first_ms = -1;
      synthetic_video_ms_ = 0;
      synthetic_audio_ms_ = 0;
      if (av_seek_frame(format_, -1, 0, AVSEEK_FLAG_BACKWARD) < 0 && !Reopen()) {
        break;  // raw elementary streams cannot seek: they are opened again
      }
      if (annexb_ != nullptr) {
        av_bsf_flush(annexb_);
      }
      continue;
    }
    const int index = packet->stream_index;
    if (index != video_index_ && index != audio_index_) {
      av_packet_unref(packet);
      continue;
    }
    // Decode order for video (files may hold B-frames), which is also the
    // order a phone encoder delivers. Raw elementary streams carry no
    // timestamps at all: they are counted from the frame rate.
    const AVStream* stream = format_->streams[index];
    const int64_t stamp = packet->dts != AV_NOPTS_VALUE ? packet->dts : packet->pts;
    long long media_ms = 0;
    if (stamp != AV_NOPTS_VALUE) {
      media_ms = av_rescale_q(stamp, stream->time_base, AVRational{1, 1000});
    } else {
      const AVRational rate =
          stream->avg_frame_rate.num > 0 ? stream->avg_frame_rate : stream->r_frame_rate;
      const long long step = rate.num > 0 ? 1000LL * rate.den / rate.num : 40;
      long long& clock = index == video_index_ ? synthetic_video_ms_ : synthetic_audio_ms_;
      media_ms = clock;
      clock += step;
    }
    if (first_ms < 0) {
      first_ms = media_ms;
    }
    const long long out_ms = loop_offset_ms + (media_ms - first_ms);
    last_ms = std::max(last_ms, out_ms);
    SleepUntil(start_ms + out_ms, stop_);  // real-time pacing
    if (index == video_index_) {
      PushVideo(packet, start_ms + out_ms);
    } else {
      PushAudio(packet, start_ms + out_ms);
    }
    av_packet_unref(packet);
  }
  av_packet_free(&packet);
}

}  // namespace qz_tools
