// qz_rtsp_publish: serves a live RTSP stream from a built-in test source or a
// media file, driving the library exactly as an app on a phone would: an
// event manager, in-process RTSP servers, one RtspSinker, encoder threads
// that push packets, user data, and a clean stop on Ctrl-C.
#include <csignal>
#include <cstdio>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "protocol/rtsp_in_server/qz_rtsp_server.h"
#include "publisher/qz_rtsp_sinker.h"
#include "tools/qz_rtsp_publish/file_source.h"
#include "tools/qz_rtsp_publish/options.h"
#include "tools/qz_rtsp_publish/test_source.h"
#include "topcommon/qz_event_define.h"
#include "topcommon/qz_event_mgr.h"

namespace {

using qz_rtsp_internal_server::QZRtspServer;
using qz_rtsp_internal_server::QZRtspServerOptions;

std::atomic<bool> g_stop{false};

void OnSignal(int) {
  g_stop = true;
}

struct Counters {
  std::atomic<long long> video_frames{0};
  std::atomic<long long> audio_frames{0};
  std::atomic<long long> bytes{0};
};

}  // namespace

int main(int argc, char** argv) {
  qz_tools::PublishOptions options;
  int exit_code = 0;
  if (!qz_tools::ParseOptions(argc, argv, options, &exit_code)) {
    return exit_code;
  }
  std::signal(SIGINT, OnSignal);
  std::signal(SIGTERM, OnSignal);
  std::signal(SIGPIPE, SIG_IGN);

  std::unique_ptr<qz_tools::MediaSource> source;
  if (options.input.empty()) {
    source.reset(new qz_tools::TestSource(options));
  } else {
    source.reset(new qz_tools::FileSource(options));
  }
  std::string error;
  if (!source->Open(&error)) {
    std::fprintf(stderr, "qz_rtsp_publish: %s\n", error.c_str());
    return 2;
  }

  std::vector<std::unique_ptr<QZRtspServer>> servers;
  std::vector<void*> handles;
  for (int i = 0; i < options.servers; ++i) {
    QZRtspServerOptions server_options;
    server_options.port = static_cast<uint16_t>(options.port == 0 ? 0 : options.port + i);
    server_options.bind_address = options.bind;
    server_options.auth_user = options.user;
    server_options.auth_password = options.password;
    // A viewer waiting for a key frame gets one from the encoder at once
    // rather than at the end of the current GOP.
    qz_tools::MediaSource* video_source = source.get();
    server_options.on_key_frame_request = [video_source](const std::string&) {
      video_source->RequestKeyFrame();
    };
    std::unique_ptr<QZRtspServer> server(new QZRtspServer(server_options));
    if (!server->Start()) {
      std::fprintf(stderr, "qz_rtsp_publish: cannot listen on port %d\n", server_options.port);
      return 2;
    }
    handles.push_back(server->Handle());
    servers.push_back(std::move(server));
  }

  qz_top_common::EventMgr events;
  events.Init();
  qz_publisher::RtspSinker sinker(&events, options.name, source->has_audio(), source->has_video(),
                                  16);
  sinker.SetRtspServers(handles);
  sinker.SetVideoKBitrate(static_cast<QZ_UINT32>(options.kbitrate));
  sinker.Start();

  Counters counters;
  source->Start([&sinker, &counters](qz_publisher::QZ_MediaPacketRefPtr packet) {
    if (packet->GetMediaType() == qz_publisher::QZMediaPacket::MediaTypeVideo) {
      ++counters.video_frames;
    } else {
      ++counters.audio_frames;
    }
    counters.bytes += packet->Size();
    sinker.PushPacket(packet);
  });

  const long long start = qz_tools::MonotonicMs();
  long long next_status = start + 1000;
  long long next_user_data = start;
  long long last_bytes = 0;
  while (!g_stop.load()) {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    const long long now = qz_tools::MonotonicMs();
    while (qz_top_common::InnerEvent* event = events.PopEvent()) {
      if (event->id_ == EVENT_KESTRAVOX_ERC_PUBLISHER_RTSP_URL) {
        std::printf("%s\n", event->param3_.c_str());
        std::fflush(stdout);
      }
      events.DeleteEvent(event);
    }
    if (!options.user_data.empty() && now >= next_user_data) {
      auto item = std::make_shared<qz_common::PublisherUserData>();
      item->SetUTF8String(options.user_data);
      sinker.PostUserData(item);
      next_user_data = now + options.user_data_every * 1000LL;
    }
    if (now >= next_status) {
      const long long bytes = counters.bytes.load();
      int clients = 0;
      for (const auto& server : servers) {
        clients += server->GetStats().playing;
      }
      if (!options.quiet) {
        const long long up = (now - start) / 1000;
        std::fprintf(stderr,
                     "[%02lld:%02lld:%02lld] video %lld frames, audio %lld frames, %.1f MB, "
                     "%.2f Mbit/s, %d client%s\n",
                     up / 3600, up / 60 % 60, up % 60, counters.video_frames.load(),
                     counters.audio_frames.load(), bytes / 1e6, (bytes - last_bytes) * 8 / 1e6,
                     clients, clients == 1 ? "" : "s");
      }
      last_bytes = bytes;
      next_status += 1000;
    }
    if (options.duration > 0 && now - start >= options.duration * 1000LL) {
      break;
    }
  }
  source->Stop();
  sinker.Stop();
  for (auto& server : servers) {
    server->Stop();
  }
  events.UnInit();
  return 0;
}
