// The built-in test source: a moving test picture that shows the running
// time, encoded in real time with libx264 or libx265, and a tone encoded as
// AAC, G.711 A-law or mu-law, each on its own encoder thread.
#ifndef TOOLS_QZ_RTSP_PUBLISH_TEST_SOURCE_H_
#define TOOLS_QZ_RTSP_PUBLISH_TEST_SOURCE_H_

#include <atomic>
#include <memory>
#include <thread>

#include "tools/qz_rtsp_publish/media_source.h"
#include "tools/qz_rtsp_publish/options.h"

struct AVCodecContext;

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

 private:
  void VideoLoop();
  void AudioLoop();

  PublishOptions options_;
  AVCodecContext* video_ = nullptr;
  AVCodecContext* audio_ = nullptr;
  PushFn push_;
  long long start_ms_ = 0;
  std::atomic<bool> stop_{false};
  std::atomic<bool> key_frame_requested_{false};
  std::thread video_thread_;
  std::thread audio_thread_;
};

}  // namespace qz_tools

#endif  // TOOLS_QZ_RTSP_PUBLISH_TEST_SOURCE_H_
