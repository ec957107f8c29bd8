#include "tests/fakes/fake_rtsp_core.h"

#include <algorithm>

#include "protocol/rtsp_in_server/wire/qz_rtsp_message.h"
#include "tests/fakes/loopback_server.h"
#include "tests/fakes/test_support.h"

namespace qz_test {

using namespace qz_rtsp_internal_server;

FakeClient::FakeClient(RtspServerCore& core, uint16_t remote_port, const std::string& address)
    : RtspClient(asio::ip::tcp::endpoint(asio::ip::make_address("127.0.0.1"), 8554),
                 asio::ip::tcp::endpoint(asio::ip::make_address(address), remote_port)),
      core_(core) {
  accepted_ms = core.NowMs();
  idle_since_ms = accepted_ms;
}

void FakeClient::KickWrite() {
  while (!stalled && !closed_ && core_.fanout().GatherTcp(*this, write_)) {
    std::string bytes;
    for (const asio::const_buffer& b : write_.buffers) {
      bytes.append(static_cast<const char*>(b.data()), b.size());
    }
    for (size_t at = 0; at + 4 <= bytes.size();) {
      const size_t size =
          (static_cast<uint8_t>(bytes[at + 2]) << 8) | static_cast<uint8_t>(bytes[at + 3]);
      written.push_back({static_cast<uint8_t>(bytes[at + 1]), bytes.substr(at + 4, size)});
      at += 4 + size;
    }
    ++media_writes;
    core_.fanout().FinishTcpWrite(write_, true, bytes.size());
  }
}

void FakeClient::Close() {
  if (!closed_) {
    closed_ = true;
    core_.ClientClosed(*this);
  }
}

FakeRtspCore::FakeRtspCore(QZRtspServerOptions options) : piple_(DescribedPipe("live")) {
  options.on_key_frame_request = [this](const std::string& name) {
    key_frame_requests_.push_back(name);
  };
  RtspServerCore::Env env;
  env.clock = &clock_;
  env.random = &random_;
  env.udp = &udp_;
  env.post = [this](std::function<void()> work) { posted_.push_back(std::move(work)); };
  env.run_after = [this](int ms, std::function<void()> work) {
    timers_.emplace_back(clock_.SteadyUs() / 1000 + ms, std::move(work));
  };
  env.find_stream = [this](const std::string& name) { return name == "live" ? stream_ : nullptr; };
  env.udp_rtp_port = 20000;
  core_.reset(new RtspServerCore(options, std::move(env), totals_));
  RtspStreamLimits limits;
  limits.keep_gop = options.gop_cache;
  auto gate = std::make_shared<RtspIoGate>(
      [this](std::function<void()> batch) { batches_.push_back(std::move(batch)); });
  stream_ = std::make_shared<RtspStream>(piple_, gate, limits, random_, clock_);
  stream_->set_on_packets([this](RtspStream& s) { core_->fanout().OnStreamPackets(s); });
  stream_->set_on_cache_lost([this](RtspStream& s) { core_->fanout().RequestKeyFrame(s); });
  stream_->Attach();
}

FakeRtspCore::~FakeRtspCore() {
  stream_->Detach();
  core_.reset();
}

Reply FakeRtspCore::SendRaw(FakeClient& client, const std::string& text) {
  RtspRequestParser parser;
  parser.Feed(text.data(), text.size());
  const size_t before = client.written.size();
  if (parser.Next() == RtspParseResult::kRequest) {
    core_->handler().Handle(client, parser.request());
    client.KickWrite();
  }
  Drain();
  for (size_t i = client.written.size(); i > before; --i) {
    const std::string& answer = client.written[i - 1].bytes;
    if (client.written[i - 1].channel == -1) {
      const size_t head_end = answer.find("\r\n\r\n");
      Reply reply = ParseHead(answer.substr(0, head_end));
      reply.body = answer.substr(head_end + 4);
      return reply;
    }
  }
  return Reply();
}

Reply FakeRtspCore::Send(FakeClient& client,
                         const std::string& method,
                         const std::string& url_suffix,
                         const std::string& extra) {
  static int cseq = 0;
  return SendRaw(client, method + " " + kUrl + url_suffix + " RTSP/1.0\r\nCSeq: " +
                             std::to_string(++cseq) + "\r\n" + extra + "\r\n");
}

Reply FakeRtspCore::SetupReply(FakeClient& client,
                               int track,
                               const std::string& transport,
                               const std::string& session) {
  std::string value = "RTP/AVP/TCP;unicast;interleaved=" + transport;
  if (transport.compare(0, 4, "RTP/") == 0) {
    value = transport;
  } else if (transport.compare(0, 4, "udp:") == 0) {
    const int port = std::atoi(transport.c_str() + 4);
    value = "RTP/AVP;unicast;client_port=" + std::to_string(port) + "-" + std::to_string(port + 1);
  }
  return Send(
      client, "SETUP", "/trackID=" + std::to_string(track),
      "Transport: " + value + "\r\n" + (session.empty() ? "" : "Session: " + session + "\r\n"));
}

void FakeRtspCore::PostVideo(int i, bool key, long long pushed_us) {
  auto video = std::make_shared<QZRtspVideoPacket>();
  video->pushed_us_ = pushed_us;
  video->codec_id_ = QZ_MEDIA_CODEC_ID_H264;
  video->is_key_frame_ = key;
  video->time_stamp_ = static_cast<QZ_UINT64>(i) * 10;
  if (key) {
    video->nal_units_.push_back(PacketData(kH264Sps));
    video->nal_units_.push_back(PacketData(kH264Pps));
    video->nal_units_.push_back(PacketData(std::vector<uint8_t>(3000, 0x65)));  // fragmented
  } else {
    video->nal_units_.push_back(PacketData(std::vector<uint8_t>(500, 0x41)));
  }
  piple_->PostVideoPacket(video);
}

void FakeRtspCore::PostAudio(int i) {
  auto audio = std::make_shared<QZRtspAudioPacket>();
  audio->codec_id_ = QZ_MEDIA_CODEC_ID_PCMA;
  audio->sample_rate_ = 8000;
  audio->channels_ = 1;
  audio->time_stamp_ = static_cast<QZ_UINT64>(i) * 10;
  audio->data_ = PacketData(std::vector<uint8_t>(80, 0xD5));
  piple_->PostAudioPacket(audio);
}

void FakeRtspCore::Feed(int from, int count, int gop) {
  for (int i = from; i < from + count; ++i) {
    PostVideo(i, i % gop == 0);
    PostAudio(i);
    clock_.AdvanceMs(10);
    Drain();
  }
}

void FakeRtspCore::Drain() {
  for (bool ran = true; ran;) {
    ran = false;
    std::vector<std::function<void()>> batches, posted;
    batches.swap(batches_);
    posted.swap(posted_);
    for (auto& batch : batches) {
      core_->fanout().RunGateBatch(batch);
      ran = true;
    }
    for (auto& work : posted) {
      work();
      ran = true;
    }
    const long long now = clock_.SteadyUs() / 1000;
    for (size_t i = 0; i < timers_.size(); ++i) {
      if (timers_[i].first <= now) {
        auto work = std::move(timers_[i].second);
        timers_.erase(timers_.begin() + static_cast<long>(i));
        work();
        ran = true;
        break;
      }
    }
  }
}

void FakeRtspCore::AdvanceMs(long long ms) {
  // In steps, so that timers run at their time.
  for (long long step = 0; step < ms; step += 10) {
    clock_.AdvanceMs(std::min(10LL, ms - step));
    Drain();
  }
}

std::vector<Written> Frames(const FakeClient& client, size_t from) {
  std::vector<Written> frames;
  for (size_t i = from; i < client.written.size(); ++i) {
    if (client.written[i].channel >= 0) {
      frames.push_back(client.written[i]);
    }
  }
  return frames;
}

std::vector<uint8_t> ReceiverReport(uint32_t ssrc,
                                    uint8_t fraction_lost,
                                    uint32_t cumulative_lost,
                                    uint32_t jitter,
                                    uint32_t lsr,
                                    uint32_t dlsr,
                                    bool bye) {
  std::vector<uint8_t> out = {0x81, 201, 0, 7, 0, 0, 0, 9};
  auto put32 = [&out](uint32_t v) {
    for (int shift = 24; shift >= 0; shift -= 8) {
      out.push_back(static_cast<uint8_t>(v >> shift));
    }
  };
  put32(ssrc);
  put32((static_cast<uint32_t>(fraction_lost) << 24) | (cumulative_lost & 0xFFFFFF));
  put32(1);  // highest sequence number received
  put32(jitter);
  put32(lsr);
  put32(dlsr);
  if (bye) {
    for (uint8_t b : {0x81, 203, 0, 1, 0, 0, 0, 9}) {
      out.push_back(b);
    }
  }
  return out;
}

}  // namespace qz_test
