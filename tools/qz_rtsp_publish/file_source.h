// A media file as a live source: H.264/H.265 video turned into Annex-B with
// FFmpeg's bitstream filters, AAC (raw or ADTS) and G.711 audio, paced in real
// time and looped with continuous timestamps.
#ifndef TOOLS_QZ_RTSP_PUBLISH_FILE_SOURCE_H_
#define TOOLS_QZ_RTSP_PUBLISH_FILE_SOURCE_H_

#include <atomic>
#include <thread>
#include <vector>

#include "tools/qz_rtsp_publish/media_source.h"
#include "tools/qz_rtsp_publish/options.h"

struct AVFormatContext;
struct AVBSFContext;
struct AVPacket;

namespace qz_tools {

class FileSource : public MediaSource {
 public:
  explicit FileSource(const PublishOptions& options);
  ~FileSource() override;

  bool Open(std::string* error) override;
  bool has_audio() const override { return audio_index_ >= 0; }
  bool has_video() const override { return video_index_ >= 0; }
  void Start(PushFn push) override;
  void Stop() override;

 private:
  void Loop();
  bool Reopen();
  void PushVideo(AVPacket* packet, long long ts);
  void PushAudio(AVPacket* packet, long long ts);

  PublishOptions options_;
  AVFormatContext* format_ = nullptr;
  AVBSFContext* annexb_ = nullptr;
  int video_index_ = -1;
  int audio_index_ = -1;
  bool h265_ = false;
  QZ_MEDIA_CODEC_ID audio_codec_ = QZ_MEDIA_CODEC_ID_NONE;
  int sample_rate_ = 0;
  int channels_ = 0;
  std::vector<uint8_t> audio_config_;
  std::vector<uint8_t> video_extradata_;  // Annex-B parameter sets, if any
  long long synthetic_video_ms_ = 0;      // timestamps of a raw elementary stream
  long long synthetic_audio_ms_ = 0;
  PushFn push_;
  std::atomic<bool> stop_{false};
  std::thread thread_;
};

}  // namespace qz_tools

#endif  // TOOLS_QZ_RTSP_PUBLISH_FILE_SOURCE_H_
