// qz_first_picture: how long a viewer waits for its first picture. Opens an
// RTSP URL with FFmpeg's libraries (OPTIONS, DESCRIBE, SETUP, PLAY), then
// reads and decodes video until the first frame comes out, and prints the
// time from the PLAY answer to that frame, and from connecting to it. No
// stream probing: the decoder is set up from the SDP alone, as a player
// that wants a fast start does.
//
//   qz_first_picture rtsp://127.0.0.1:8554/live [--udp] [--runs N]
extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
}

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

namespace {

double NowMs() {
  return std::chrono::duration<double, std::milli>(
             std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

// One viewer: false when the stream could not be opened or decoded.
bool Measure(const std::string& url, bool udp, double* play_to_picture, double* total) {
  const double start = NowMs();
  AVDictionary* options = nullptr;
  av_dict_set(&options, "rtsp_transport", udp ? "udp" : "tcp", 0);
  av_dict_set(&options, "timeout", "5000000", 0);
  AVFormatContext* format = nullptr;
  if (avformat_open_input(&format, url.c_str(), nullptr, &options) < 0) {
    av_dict_free(&options);
    return false;
  }
  av_dict_free(&options);
  const double played = NowMs();  // avformat_open_input returns once PLAY is answered
  bool ok = false;
  const int video = av_find_best_stream(format, AVMEDIA_TYPE_VIDEO, -1, -1, nullptr, 0);
  const AVCodec* codec =
      video < 0 ? nullptr : avcodec_find_decoder(format->streams[video]->codecpar->codec_id);
  AVCodecContext* decoder = codec ? avcodec_alloc_context3(codec) : nullptr;
  if (decoder && avcodec_parameters_to_context(decoder, format->streams[video]->codecpar) >= 0 &&
      avcodec_open2(decoder, codec, nullptr) >= 0) {
    AVPacket* packet = av_packet_alloc();
    AVFrame* frame = av_frame_alloc();
    const double give_up = played + 10000;
    while (!ok && NowMs() < give_up && av_read_frame(format, packet) >= 0) {
      if (packet->stream_index == video && avcodec_send_packet(decoder, packet) >= 0) {
        ok = avcodec_receive_frame(decoder, frame) >= 0;
      }
      av_packet_unref(packet);
    }
    av_frame_free(&frame);
    av_packet_free(&packet);
  }
  const double pictured = NowMs();
  avcodec_free_context(&decoder);
  avformat_close_input(&format);
  *play_to_picture = pictured - played;
  *total = pictured - start;
  return ok;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    std::fprintf(stderr, "usage: qz_first_picture URL [--udp] [--runs N]\n");
    return 2;
  }
  const std::string url = argv[1];
  bool udp = false;
  int runs = 10;
  for (int i = 2; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "--udp") {
      udp = true;
    } else if (arg == "--runs" && i + 1 < argc) {
      runs = std::max(1, std::atoi(argv[++i]));
    }
  }
  av_log_set_level(AV_LOG_ERROR);
  avformat_network_init();
  std::vector<double> play_ms, total_ms;
  for (int i = 0; i < runs; ++i) {
    double p = 0, t = 0;
    if (Measure(url, udp, &p, &t)) {
      play_ms.push_back(p);
      total_ms.push_back(t);
      std::printf("run %2d: PLAY to first picture %7.1f ms, connect to first picture %7.1f ms\n",
                  i + 1, p, t);
    } else {
      std::printf("run %2d: no picture\n", i + 1);
    }
    // Spread the joins over the key-frame interval.
    std::this_thread::sleep_for(std::chrono::milliseconds(317 + 211 * (i % 5)));
  }
  if (play_ms.empty()) {
    return 1;
  }
  std::sort(play_ms.begin(), play_ms.end());
  std::sort(total_ms.begin(), total_ms.end());
  std::printf(
      "%s, %zu of %d runs: PLAY to first picture median %.1f ms (min %.1f, max %.1f); "
      "connect to first picture median %.1f ms\n",
      udp ? "udp" : "tcp", play_ms.size(), runs, play_ms[play_ms.size() / 2], play_ms.front(),
      play_ms.back(), total_ms[total_ms.size() / 2]);
  avformat_network_deinit();
  return play_ms.size() == static_cast<size_t>(runs) ? 0 : 1;
}
