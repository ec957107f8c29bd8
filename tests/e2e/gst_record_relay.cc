// qz_gst_record_relay: a relay that takes a pushed stream, built on
// GStreamer's RTSP server in RECORD mode, for the end-to-end tests of the
// publisher's --push. It accepts ANNOUNCE, SETUP (mode=record, TCP or UDP)
// and RECORD at one path on 127.0.0.1, decodes every announced stream with
// decodebin (H.264 or H.265 video, AAC or G.711 audio: whatever the SDP
// says), and counts what comes out of the decoders.
//
//   qz_gst_record_relay --port 0 --path /phone [--user U --password P]
//       [--tls-cert FILE --tls-key FILE] [--streams 2] [--video-frames N]
//       [--seconds S] [--timeout T]
//
// --tls-cert and --tls-key (PEM files): RTSP over TLS (rtsps://) only.
//
// --streams: how many streams the publisher announces (2: video and
// audio). A record-mode media has one stream per element named depay<i>,
// fixed when the media is made, and the server answers an ANNOUNCE whose
// SDP has another number of media with 415.
//
// stdout: "port N" first (the bound port, for scripts), then the RTSP
// dialogue as the relay answered it ("relay: ANNOUNCE ... -> 401 ..."), the
// announced payloads, the first decoded caps of each kind, and at the end
//   relay: 250 video frames, 470 audio buffers, first after 0.4 s
// (the first video frame, counted from the RECORD the relay accepted)
//   relay: 2500 RTP packets, 0 lost
//   relay: stopped: <why>
// and, when it failed, "relay: FAILED: <why>". stderr: every error and
// warning message posted on a media pipeline's bus.
//
// It stops once it has N video frames and some audio, S seconds after the
// first decoded buffer, when the recording publisher tears its session
// down or drops its connection, or (failing) when nothing was decoded T
// seconds after the start. Exit 0 when video frames and audio buffers were
// decoded, 1 when not, 2 for bad options, 3 when it cannot listen.
#include <glib-unix.h>
#include <gst/gst.h>
#include <gst/rtsp-server/rtsp-server.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

struct Options {
  std::string port = "0";
  std::string path = "/phone";
  std::string user;
  std::string password;
  std::string tls_cert;
  std::string tls_key;
  int streams = 2;
  long video_frames = 0;  // 0: no frame target
  double seconds = 30;
  double timeout = 20;
};

// Counters written by the pipelines' streaming threads and the clients'
// threads, read by the main loop's check.
struct Counters {
  std::atomic<long> video{0};
  std::atomic<long> audio{0};
  std::atomic<gint64> start_us{0};        // the program's start
  std::atomic<gint64> record_us{0};       // the first RECORD answered 200
  std::atomic<gint64> first_video_us{0};  // the first decoded video frame
  std::atomic<gint64> first_media_us{0};  // the first decoded buffer of any kind
  std::atomic<int> ended{0};              // 1: TEARDOWN, 2: connection closed
  std::atomic<bool> video_caps_shown{false};
  std::atomic<bool> audio_caps_shown{false};
  // RTP as it reaches the decoders, after the server's jitter buffer.
  std::atomic<long> rtp_packets{0};
  std::atomic<long> rtp_lost{0};  // sequence numbers skipped
};

// One stream's RTP sequence, followed on its streaming thread only.
struct RtpSequence {
  bool started = false;
  guint16 last = 0;
};

Counters counters;
Options options;
GMainLoop* loop = nullptr;
std::string stop_reason;

double SecondsSince(gint64 from_us, gint64 to_us) {
  return static_cast<double>(to_us - from_us) / 1e6;
}

std::string Seconds(double seconds) {
  char text[32];
  std::snprintf(text, sizeof(text), "%g s", seconds);
  return text;
}

// One fakesink per stream: classifies each decoded buffer by its caps.
void OnHandoff(GstElement*, GstBuffer*, GstPad* pad, gpointer) {
  GstCaps* caps = gst_pad_get_current_caps(pad);
  if (caps == nullptr) {
    return;
  }
  const char* name = gst_structure_get_name(gst_caps_get_structure(caps, 0));
  const bool video = g_str_has_prefix(name, "video/");
  const bool audio = g_str_has_prefix(name, "audio/");
  const gint64 now = g_get_monotonic_time();
  gint64 unset = 0;
  if (video || audio) {
    counters.first_media_us.compare_exchange_strong(unset, now);
  }
  std::atomic<bool>& shown = video ? counters.video_caps_shown : counters.audio_caps_shown;
  if ((video || audio) && !shown.exchange(true)) {
    gchar* text = gst_caps_to_string(caps);
    std::printf("relay: first decoded %s: %s\n", video ? "video" : "audio", text);
    std::fflush(stdout);
    g_free(text);
  }
  if (video) {
    unset = 0;
    counters.first_video_us.compare_exchange_strong(unset, now);
    counters.video.fetch_add(1);
  } else if (audio) {
    counters.audio.fetch_add(1);
  }
  gst_caps_unref(caps);
}

// Every error and warning of a media pipeline, as it is posted (the
// server keeps the bus's only watch for itself).
void OnSyncMessage(GstBus*, GstMessage* message, gpointer) {
  GError* error = nullptr;
  gchar* debug = nullptr;
  const char* kind = "ERROR";
  if (GST_MESSAGE_TYPE(message) == GST_MESSAGE_ERROR) {
    gst_message_parse_error(message, &error, &debug);
  } else if (GST_MESSAGE_TYPE(message) == GST_MESSAGE_WARNING) {
    gst_message_parse_warning(message, &error, &debug);
    kind = "WARNING";
  } else {
    return;
  }
  std::fprintf(stderr, "%s from %s: %s (%s)\n", kind, GST_OBJECT_NAME(GST_MESSAGE_SRC(message)),
               error->message, debug != nullptr ? debug : "no details");
  g_clear_error(&error);
  g_free(debug);
}

// Counts the RTP packets that enter a decodebin and the sequence numbers
// missing between them (lost, or dropped late by the jitter buffer).
GstPadProbeReturn OnRtp(GstPad*, GstPadProbeInfo* info, gpointer data) {
  GstBuffer* buffer = GST_PAD_PROBE_INFO_BUFFER(info);
  guint8 header[4];
  if (buffer == nullptr || gst_buffer_extract(buffer, 0, header, 4) != 4) {
    return GST_PAD_PROBE_OK;
  }
  auto* sequence = static_cast<RtpSequence*>(data);
  const guint16 seq = static_cast<guint16>(header[2] << 8 | header[3]);
  const guint16 step = static_cast<guint16>(seq - sequence->last);
  // A step back (a duplicate or a late packet) counts as no loss.
  if (sequence->started && step > 1 && step < 0x8000) {
    counters.rtp_lost.fetch_add(step - 1);
  }
  if (!sequence->started || (step != 0 && step < 0x8000)) {
    sequence->last = seq;
  }
  sequence->started = true;
  counters.rtp_packets.fetch_add(1);
  return GST_PAD_PROBE_OK;
}

void FreeRtpSequence(gpointer data) {
  delete static_cast<RtpSequence*>(data);
}

void OnMediaConstructed(GstRTSPMediaFactory*, GstRTSPMedia* media, gpointer) {
  GstElement* element = gst_rtsp_media_get_element(media);
  for (int i = 0; i < options.streams; ++i) {
    gchar* name = g_strdup_printf("sink%d", i);
    GstElement* sink = gst_bin_get_by_name(GST_BIN(element), name);
    g_free(name);
    if (sink != nullptr) {
      g_signal_connect(sink, "handoff", G_CALLBACK(OnHandoff), nullptr);
      gst_object_unref(sink);
    }
    name = g_strdup_printf("depay%d", i);
    GstElement* decoder = gst_bin_get_by_name(GST_BIN(element), name);
    g_free(name);
    if (decoder != nullptr) {
      GstPad* pad = gst_element_get_static_pad(decoder, "sink");
      gst_pad_add_probe(pad, GST_PAD_PROBE_TYPE_BUFFER, OnRtp, new RtpSequence, FreeRtpSequence);
      gst_object_unref(pad);
      gst_object_unref(decoder);
    }
  }
  // The launch line's bin sits in the pipeline the media made for it; the
  // pipeline owns the bus that the server watches.
  GstObject* pipeline = gst_object_get_parent(GST_OBJECT(element));
  if (pipeline != nullptr) {
    GstBus* bus = gst_element_get_bus(GST_ELEMENT(pipeline));
    gst_bus_enable_sync_message_emission(bus);
    g_signal_connect(bus, "sync-message::error", G_CALLBACK(OnSyncMessage), nullptr);
    g_signal_connect(bus, "sync-message::warning", G_CALLBACK(OnSyncMessage), nullptr);
    gst_object_unref(bus);
    gst_object_unref(pipeline);
  } else {
    std::printf("relay: the media has no pipeline: its bus messages are not shown\n");
  }
  gst_object_unref(element);
}

// Each response the relay sends, with the request it answers.
void OnSendMessage(GstRTSPClient*, GstRTSPContext* ctx, GstRTSPMessage* message, gpointer) {
  GstRTSPStatusCode code;
  const gchar* reason = nullptr;
  if (message == nullptr || gst_rtsp_message_get_type(message) != GST_RTSP_MESSAGE_RESPONSE ||
      gst_rtsp_message_parse_response(message, &code, &reason, nullptr) != GST_RTSP_OK) {
    return;
  }
  GstRTSPMethod method = GST_RTSP_INVALID;
  const gchar* uri = nullptr;
  if (ctx != nullptr && ctx->request != nullptr) {
    gst_rtsp_message_parse_request(ctx->request, &method, &uri, nullptr);
  }
  std::printf("relay: %s %s -> %d %s\n", gst_rtsp_method_as_text(method), uri ? uri : "?",
              static_cast<int>(code), reason ? reason : "");
  if (method == GST_RTSP_RECORD && code == GST_RTSP_STS_OK) {
    gint64 unset = 0;
    counters.record_us.compare_exchange_strong(unset, g_get_monotonic_time());
  }
  std::fflush(stdout);
}

// The payloads the publisher announced, one line.
void OnAnnounce(GstRTSPClient*, GstRTSPContext* ctx, gpointer) {
  guint8* body = nullptr;
  guint size = 0;
  if (ctx->request == nullptr ||
      gst_rtsp_message_get_body(ctx->request, &body, &size) != GST_RTSP_OK) {
    return;
  }
  const std::string sdp(reinterpret_cast<const char*>(body), size);
  std::string payloads;
  for (size_t at = sdp.find("a=rtpmap:"); at != std::string::npos;
       at = sdp.find("a=rtpmap:", at + 1)) {
    const size_t end = sdp.find_first_of("\r\n", at);
    payloads += (payloads.empty() ? "" : ", ") + sdp.substr(at + 9, end - at - 9);
  }
  std::printf("relay: announced %s\n", payloads.empty() ? "no rtpmap" : payloads.c_str());
  std::fflush(stdout);
}

void OnTeardown(GstRTSPClient*, GstRTSPContext*, gpointer) {
  if (counters.record_us.load() != 0) {
    counters.ended.store(1);
  }
}

void OnClosed(GstRTSPClient*, gpointer) {
  int none = 0;
  if (counters.record_us.load() != 0) {
    counters.ended.compare_exchange_strong(none, 2);
  }
}

void OnClientConnected(GstRTSPServer*, GstRTSPClient* client, gpointer) {
  g_signal_connect(client, "send-message", G_CALLBACK(OnSendMessage), nullptr);
  g_signal_connect(client, "announce-request", G_CALLBACK(OnAnnounce), nullptr);
  g_signal_connect(client, "teardown-request", G_CALLBACK(OnTeardown), nullptr);
  g_signal_connect(client, "closed", G_CALLBACK(OnClosed), nullptr);
}

// Polled from the main loop: whether to stop, and why.
gboolean Check(gpointer) {
  const gint64 now = g_get_monotonic_time();
  const gint64 first = counters.first_media_us.load();
  if (options.video_frames > 0 && counters.video.load() >= options.video_frames &&
      counters.audio.load() > 0) {
    stop_reason = std::to_string(options.video_frames) + " video frames reached";
  } else if (first != 0 && SecondsSince(first, now) >= options.seconds) {
    stop_reason = "the media ran " + Seconds(options.seconds);
  } else if (counters.ended.load() == 1) {
    stop_reason = "the publisher sent TEARDOWN";
  } else if (counters.ended.load() == 2) {
    stop_reason = "the publisher closed its connection";
  } else if (first == 0 && SecondsSince(counters.start_us.load(), now) >= options.timeout) {
    stop_reason = "nothing decoded within " + Seconds(options.timeout);
  } else {
    return G_SOURCE_CONTINUE;
  }
  g_main_loop_quit(loop);
  return G_SOURCE_REMOVE;
}

gboolean OnSignal(gpointer) {
  stop_reason = "interrupted";
  g_main_loop_quit(loop);
  return G_SOURCE_REMOVE;
}

bool ParseOptions(int argc, char** argv) {
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (i + 1 >= argc) {
      std::fprintf(stderr, "qz_gst_record_relay: %s needs a value\n", arg.c_str());
      return false;
    }
    const char* value = argv[++i];
    if (arg == "--port") {
      options.port = value;
    } else if (arg == "--path") {
      options.path = value;
    } else if (arg == "--user") {
      options.user = value;
    } else if (arg == "--password") {
      options.password = value;
    } else if (arg == "--tls-cert") {
      options.tls_cert = value;
    } else if (arg == "--tls-key") {
      options.tls_key = value;
    } else if (arg == "--streams") {
      options.streams = std::atoi(value);
    } else if (arg == "--video-frames") {
      options.video_frames = std::atol(value);
    } else if (arg == "--seconds") {
      options.seconds = std::atof(value);
    } else if (arg == "--timeout") {
      options.timeout = std::atof(value);
    } else {
      std::fprintf(stderr, "qz_gst_record_relay: unknown option %s\n", arg.c_str());
      return false;
    }
  }
  if (options.path.empty() || options.path[0] != '/' || options.streams < 1 ||
      options.streams > 8 || options.seconds <= 0 || options.timeout <= 0 ||
      options.user.empty() != options.password.empty() ||
      options.tls_cert.empty() != options.tls_key.empty() ||
      (!options.tls_cert.empty() && options.user.empty())) {
    std::fprintf(stderr,
                 "qz_gst_record_relay: --path must start with /, --streams be 1 to 8, "
                 "--seconds and --timeout above 0, --user and --password go together, "
                 "--tls-cert and --tls-key too (and need --user)\n");
    return false;
  }
  return true;
}

// Digest only (Basic off): the user's token may construct the mount's
// media, which ANNOUNCE needs; anyone else gets 401.
void AddAuth(GstRTSPServer* server, GstRTSPMediaFactory* factory) {
  gst_rtsp_media_factory_add_role(factory, "publisher", GST_RTSP_PERM_MEDIA_FACTORY_ACCESS,
                                  G_TYPE_BOOLEAN, TRUE, GST_RTSP_PERM_MEDIA_FACTORY_CONSTRUCT,
                                  G_TYPE_BOOLEAN, TRUE, nullptr);
  GstRTSPAuth* auth = gst_rtsp_auth_new();
  gst_rtsp_auth_set_supported_methods(auth, GST_RTSP_AUTH_DIGEST);
  GstRTSPToken* token =
      gst_rtsp_token_new(GST_RTSP_TOKEN_MEDIA_FACTORY_ROLE, G_TYPE_STRING, "publisher", nullptr);
  gst_rtsp_auth_add_digest(auth, options.user.c_str(), options.password.c_str(), token);
  gst_rtsp_token_unref(token);
  if (!options.tls_cert.empty()) {
    GError* error = nullptr;
    GTlsCertificate* cert = g_tls_certificate_new_from_files(options.tls_cert.c_str(),
                                                             options.tls_key.c_str(), &error);
    if (cert == nullptr) {
      std::printf("relay: FAILED: cannot load the TLS certificate: %s\n", error->message);
      std::exit(2);
    }
    gst_rtsp_auth_set_tls_certificate(auth, cert);
    g_object_unref(cert);
  }
  gst_rtsp_server_set_auth(server, auth);
  g_object_unref(auth);
}

}  // namespace

int main(int argc, char** argv) {
  gst_init(&argc, &argv);
  if (!ParseOptions(argc, argv)) {
    return 2;
  }
  counters.start_us.store(g_get_monotonic_time());
  // One decodebin per announced stream: the server feeds depay<i> the RTP
  // of the SDP's i-th media, and decodebin finds the depayloader, parser
  // and decoder for whatever payload that is. Each decoder ends in a
  // fakesink that counts (no clock: buffers are counted as they come).
  std::string launch = "(";
  for (int i = 0; i < options.streams; ++i) {
    launch += " decodebin name=depay" + std::to_string(i) + " ! fakesink name=sink" +
              std::to_string(i) + " sync=false signal-handoffs=true";
  }
  launch += " )";

  loop = g_main_loop_new(nullptr, FALSE);
  GstRTSPServer* server = gst_rtsp_server_new();
  gst_rtsp_server_set_address(server, "127.0.0.1");
  gst_rtsp_server_set_service(server, options.port.c_str());
  GstRTSPMediaFactory* factory = gst_rtsp_media_factory_new();
  gst_rtsp_media_factory_set_transport_mode(factory, GST_RTSP_TRANSPORT_MODE_RECORD);
  gst_rtsp_media_factory_set_launch(factory, launch.c_str());
  g_signal_connect(factory, "media-constructed", G_CALLBACK(OnMediaConstructed), nullptr);
  if (!options.user.empty()) {
    AddAuth(server, factory);
  }
  GstRTSPMountPoints* mounts = gst_rtsp_server_get_mount_points(server);
  gst_rtsp_mount_points_add_factory(mounts, options.path.c_str(), factory);
  g_object_unref(mounts);
  g_signal_connect(server, "client-connected", G_CALLBACK(OnClientConnected), nullptr);
  if (gst_rtsp_server_attach(server, nullptr) == 0) {
    std::printf("relay: FAILED: cannot listen on 127.0.0.1 port %s\n", options.port.c_str());
    return 3;
  }
  std::printf("port %d\n", gst_rtsp_server_get_bound_port(server));
  std::fflush(stdout);

  g_timeout_add(50, Check, nullptr);
  g_unix_signal_add(SIGINT, OnSignal, nullptr);
  g_unix_signal_add(SIGTERM, OnSignal, nullptr);
  g_main_loop_run(loop);

  const long video = counters.video.load();
  const long audio = counters.audio.load();
  const gint64 record = counters.record_us.load();
  const gint64 first_video = counters.first_video_us.load();
  if (record != 0 && first_video != 0) {
    std::printf("relay: %ld video frames, %ld audio buffers, first after %.1f s\n", video, audio,
                SecondsSince(record, first_video));
  } else {
    std::printf("relay: %ld video frames, %ld audio buffers, %s\n", video, audio,
                record != 0 ? "no video frame after RECORD" : "no RECORD");
  }
  std::printf("relay: %ld RTP packets, %ld lost\n", counters.rtp_packets.load(),
              counters.rtp_lost.load());
  std::printf("relay: stopped: %s\n", stop_reason.c_str());
  int status = 0;
  if (video == 0 || audio == 0) {
    std::printf("relay: FAILED: %s\n", video == 0 && audio == 0 ? "nothing decoded"
                                       : video == 0             ? "no video frame decoded"
                                                                : "no audio decoded");
    status = 1;
  }
  std::fflush(stdout);
  std::fflush(stderr);
  // The pipelines' threads may still be running; leave without tearing the
  // server down under them.
  std::_Exit(status);
}
