#include "tests/fakes/fake_rtsp_server.h"

#include <algorithm>

namespace qz_test {

using qz_rtsp_internal_server::QZRtspServerMgr;

class FakeRtspServer::VideoConsumer : public qz_rtsp_internal_server::QZRtspVideoSinker {
 public:
  VideoConsumer(FakeRtspServer* server, QZRtspPacketPiple* piple)
      : server_(server), piple_(piple) {}
  void OnRtspPacket(const std::shared_ptr<QZRtspVideoPacket>& packet) override {
    ReceivedVideo received;
    received.record = packet;
    piple_->GetVpsSpsPps(received.vps, received.sps, received.pps);
    std::lock_guard<std::mutex> lock(server_->mutex_);
    server_->video_.push_back(std::move(received));
  }

 private:
  FakeRtspServer* server_;
  QZRtspPacketPiple* piple_;
};

class FakeRtspServer::AudioConsumer : public qz_rtsp_internal_server::QZRtspAudioSinker {
 public:
  AudioConsumer(FakeRtspServer* server, QZRtspPacketPiple* piple)
      : server_(server), piple_(piple) {}
  void OnRtspPacket(const std::shared_ptr<QZRtspAudioPacket>& packet) override {
    ReceivedAudio received;
    received.record = packet;
    piple_->GetAudioSpecificConfig(received.config);
    received.sample_rate = piple_->AudioSampleRate();
    received.channels = piple_->AudioChannels();
    std::lock_guard<std::mutex> lock(server_->mutex_);
    server_->audio_.push_back(std::move(received));
  }

 private:
  FakeRtspServer* server_;
  QZRtspPacketPiple* piple_;
};

FakeRtspServer::FakeRtspServer(void* handle, bool accept) : handle_(handle), accept_(accept) {}

std::shared_ptr<FakeRtspServer> FakeRtspServer::Create(void* handle, bool accept) {
  std::shared_ptr<FakeRtspServer> server(new FakeRtspServer(handle, accept));
  server->registered_ = QZRtspServerMgr::Instance()->RegisterServer(handle, server);
  return server;
}

FakeRtspServer::~FakeRtspServer() = default;

void FakeRtspServer::Unregister() {
  QZRtspServerMgr::Instance()->UnregisterServer(handle_);
}

void FakeRtspServer::set_accept(bool accept) {
  std::lock_guard<std::mutex> lock(mutex_);
  accept_ = accept;
}

void FakeRtspServer::set_url_on_accept(const std::string& url) {
  std::lock_guard<std::mutex> lock(mutex_);
  url_on_accept_ = url;
}

bool FakeRtspServer::AcceptPiple(const std::shared_ptr<QZRtspPacketPiple>& piple,
                                 std::string& why) {
  std::lock_guard<std::mutex> lock(mutex_);
  ++offered_;
  if (!accept_) {
    why = "the fake server refuses pipes";
    return false;
  }
  auto video = std::make_shared<VideoConsumer>(this, piple.get());
  auto audio = std::make_shared<AudioConsumer>(this, piple.get());
  std::shared_ptr<qz_rtsp_internal_server::QZRtspVideoSinker> video_base = video;
  std::shared_ptr<qz_rtsp_internal_server::QZRtspAudioSinker> audio_base = audio;
  piple->AddVideoSinker(video_base);
  piple->AddAudioSinker(audio_base);
  consumers_.push_back(video);
  consumers_.push_back(audio);
  if (!url_on_accept_.empty()) {
    piple->SetRtspURL(url_on_accept_);
  }
  pipes_.push_back(piple);
  return true;
}

void FakeRtspServer::WithdrawPiple(const std::shared_ptr<QZRtspPacketPiple>& piple) {
  std::lock_guard<std::mutex> lock(mutex_);
  auto it = std::find(pipes_.begin(), pipes_.end(), piple);
  if (it != pipes_.end()) {
    pipes_.erase(it);
    withdrawn_.push_back(piple);
  }
}

std::vector<std::shared_ptr<QZRtspPacketPiple>> FakeRtspServer::pipes() {
  std::lock_guard<std::mutex> lock(mutex_);
  return pipes_;
}

std::vector<std::shared_ptr<QZRtspPacketPiple>> FakeRtspServer::withdrawn() {
  std::lock_guard<std::mutex> lock(mutex_);
  return withdrawn_;
}

int FakeRtspServer::offered() {
  std::lock_guard<std::mutex> lock(mutex_);
  return offered_;
}

std::vector<ReceivedVideo> FakeRtspServer::video() {
  std::lock_guard<std::mutex> lock(mutex_);
  return video_;
}

std::vector<ReceivedAudio> FakeRtspServer::audio() {
  std::lock_guard<std::mutex> lock(mutex_);
  return audio_;
}

}  // namespace qz_test
