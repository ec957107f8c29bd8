// The built-in test source: a moving, textured test picture that shows its
// capture time and frame number, encoded in real time with libx264 or
// libx265, and a tone encoded as AAC, G.711 A-law or mu-law, each on its own
// encoder thread. Like a camera, it stamps every frame with its capture time
// on the monotonic clock and drops frames when the encoder falls behind.
#ifndef TOOLS_QZ_RTSP_PUBLISH_TEST_SOURCE_H_
#define TOOLS_QZ_RTSP_PUBLISH_TEST_SOURCE_H_

#include <atomic>
#include <cstdint>
#include <memory>
#include <thread>
#include <vector>

#include "tools/qz_rtsp_publish/media_source.h"
#include "tools/qz_rtsp_publish/options.h"

struct AVCodecContext;
struct AVPacket;

namespace qz_tools {

class TestSource : public MediaSource {
 public:
  explicit TestSource(const PublishOptions& options);
  ~TestSource() override;

  bool Open(std::string* error) override;
  bool has_audio() const override { return options_.audio != "none"; }
  bool has_video() const override { return true; }
  void Start(PushFn push) override;
  void Stop() override;
  void RequestKeyFrame() override { key_frame_requested_ = true; }
  void OnStreamAnnounced() override;
  long long DroppedFrames() const override { return dropped_frames_.load(); }

 private:
  void VideoLoop();
  void AudioLoop();
  // Pushes every packet `encoder` has ready; with `flush`, first tells it
  // that no more frames come, so that it hands over what it holds back.
  void Drain(AVCodecContext* encoder, AVPacket* packet, bool flush);

  PublishOptions options_;
  AVCodecContext* video_ = nullptr;
  AVCodecContext* audio_ = nullptr;
  std::vector<uint8_t> audio_config_;  // AAC AudioSpecificConfig
  PushFn push_;
  long long start_ms_ = 0;
  std::atomic<bool> stop_{false};
  std::atomic<bool> key_frame_requested_{false};
  std::atomic<bool> announced_{false};
  std::atomic<long long> dropped_frames_{0};
  std::thread video_thread_;
  std::thread audio_thread_;
};

}  // namespace qz_tools

#endif  // TOOLS_QZ_RTSP_PUBLISH_TEST_SOURCE_H_
