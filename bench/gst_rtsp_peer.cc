// qz_gst_rtsp_peer: GStreamer's RTSP server (gst-rtsp-server) serving an MP4
// file's H.264 and AAC at real-time pace, one media shared by every client,
// as the peer our server is measured against. Ctrl-C stops it.
//
//   qz_gst_rtsp_peer input.mp4 8554     (serves rtsp://host:8554/live)
#include <glib-unix.h>
#include <gst/gst.h>
#include <gst/rtsp-server/rtsp-server.h>

#include <cstdio>
#include <string>

namespace {

gboolean Quit(gpointer loop) {
  g_main_loop_quit(static_cast<GMainLoop*>(loop));
  return G_SOURCE_REMOVE;
}

}  // namespace

int main(int argc, char** argv) {
  gst_init(&argc, &argv);
  if (argc < 3) {
    std::fprintf(stderr, "usage: qz_gst_rtsp_peer FILE.mp4 PORT\n");
    return 2;
  }
  const std::string launch = std::string("( filesrc location=\"") + argv[1] +
                             "\" ! qtdemux name=d "
                             "d.video_0 ! queue ! h264parse config-interval=-1 ! "
                             "rtph264pay name=pay0 pt=96 "
                             "d.audio_0 ! queue ! aacparse ! rtpmp4gpay name=pay1 pt=97 )";
  GMainLoop* loop = g_main_loop_new(nullptr, FALSE);
  GstRTSPServer* server = gst_rtsp_server_new();
  gst_rtsp_server_set_service(server, argv[2]);
  GstRTSPMountPoints* mounts = gst_rtsp_server_get_mount_points(server);
  GstRTSPMediaFactory* factory = gst_rtsp_media_factory_new();
  gst_rtsp_media_factory_set_launch(factory, launch.c_str());
  gst_rtsp_media_factory_set_shared(factory, TRUE);
  gst_rtsp_mount_points_add_factory(mounts, "/live", factory);
  g_object_unref(mounts);
  if (gst_rtsp_server_attach(server, nullptr) == 0) {
    std::fprintf(stderr, "qz_gst_rtsp_peer: cannot listen on port %s\n", argv[2]);
    return 1;
  }
  std::printf("rtsp://127.0.0.1:%s/live\n", argv[2]);
  std::fflush(stdout);
  g_unix_signal_add(SIGINT, Quit, loop);
  g_unix_signal_add(SIGTERM, Quit, loop);
  g_main_loop_run(loop);
  g_object_unref(server);
  g_main_loop_unref(loop);
  return 0;
}
