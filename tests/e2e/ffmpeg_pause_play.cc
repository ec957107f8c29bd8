// An FFmpeg viewer that pauses: plays an RTSP URL over TCP for PLAY_S
// seconds, sends PAUSE, waits PAUSE_S seconds, sends PLAY, and so on for
// ROUNDS plays, decoding the video all along. It fails on any error FFmpeg
// logs, a play that brings no decoded picture, or a PAUSE or PLAY refused.
// It also counts the 401 answers that said stale=true (by their MD5
// challenge, in FFmpeg's trace of the server's answers), to show that
// expired nonces were renewed on the way.
//
// Usage: qz_ffmpeg_pause_play URL ROUNDS PLAY_S PAUSE_S
extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/log.h>
}

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>

namespace {

int g_errors = 0;
int g_stale = 0;
int g_round = 1;

void OnLog(void* avcl, int level, const char* format, va_list args) {
  char line[1024];
  int prefix = 1;
  av_log_format_line(avcl, level, format, args, line, sizeof(line), &prefix);
  if (level <= AV_LOG_ERROR) {
    ++g_errors;
    std::fprintf(stderr, "ffmpeg (round %d): %s", g_round, line);
  } else if (std::strstr(line, "WWW-Authenticate: Digest") != nullptr &&
             std::strstr(line, "algorithm=MD5") != nullptr &&
             std::strstr(line, "stale=true") != nullptr) {
    ++g_stale;
  }
}

double Now() {
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 5) {
    std::fprintf(stderr, "usage: %s URL ROUNDS PLAY_S PAUSE_S\n", argv[0]);
    return 2;
  }
  const int rounds = std::atoi(argv[2]);
  const double play_s = std::atof(argv[3]);
  const double pause_s = std::atof(argv[4]);
  av_log_set_level(AV_LOG_TRACE);  // the answers' headers are traced
  av_log_set_callback(OnLog);
  AVDictionary* options = nullptr;
  av_dict_set(&options, "rtsp_transport", "tcp", 0);
  AVFormatContext* input = nullptr;
  if (avformat_open_input(&input, argv[1], nullptr, &options) < 0 ||
      avformat_find_stream_info(input, nullptr) < 0) {
    std::fprintf(stderr, "cannot open %s\n", argv[1]);
    return 1;
  }
  av_dict_free(&options);
  const int video = av_find_best_stream(input, AVMEDIA_TYPE_VIDEO, -1, -1, nullptr, 0);
  if (video < 0) {
    std::fprintf(stderr, "no video stream\n");
    return 1;
  }
  const AVCodecParameters* par = input->streams[video]->codecpar;
  AVCodecContext* decoder = avcodec_alloc_context3(avcodec_find_decoder(par->codec_id));
  avcodec_parameters_to_context(decoder, par);
  if (avcodec_open2(decoder, nullptr, nullptr) < 0) {
    std::fprintf(stderr, "cannot open the decoder\n");
    return 1;
  }
  AVPacket* packet = av_packet_alloc();
  AVFrame* frame = av_frame_alloc();
  bool ok = true;
  for (int round = 0; round < rounds && ok; ++round) {
    g_round = round + 1;
    if (round > 0 && av_read_play(input) < 0) {
      std::fprintf(stderr, "PLAY refused in round %d\n", round + 1);
      ok = false;
      break;
    }
    int pictures = 0;
    const double end = Now() + play_s;
    while (Now() < end) {
      const int status = av_read_frame(input, packet);
      if (status == AVERROR(EAGAIN)) {
        continue;
      }
      if (status < 0) {
        std::fprintf(stderr, "read failed in round %d\n", round + 1);
        ok = false;
        break;
      }
      if (packet->stream_index == video && avcodec_send_packet(decoder, packet) == 0) {
        while (avcodec_receive_frame(decoder, frame) == 0) {
          ++pictures;
        }
      }
      av_packet_unref(packet);
    }
    std::printf("round %d: %d pictures\n", round + 1, pictures);
    ok = ok && pictures > 0;
    if (ok && round + 1 < rounds) {
      if (av_read_pause(input) < 0) {
        std::fprintf(stderr, "PAUSE refused in round %d\n", round + 1);
        ok = false;
      }
      // While it waits for the PAUSE's answer, FFmpeg skips the interleaved
      // media that arrives: the picture it was reading stays incomplete in
      // its parser and would be decoded broken after PLAY. A player that
      // pauses drops that state, as this one does here.
      avformat_flush(input);
      avcodec_flush_buffers(decoder);
      std::this_thread::sleep_for(std::chrono::duration<double>(pause_s));
    }
  }
  av_frame_free(&frame);
  av_packet_free(&packet);
  avcodec_free_context(&decoder);
  avformat_close_input(&input);
  std::printf("stale challenges answered: %d, errors logged: %d\n", g_stale, g_errors);
  return ok && g_errors == 0 ? 0 : 1;
}
