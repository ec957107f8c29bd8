#include "tests/fakes/fake_rtsp_server.h"

#include <algorithm>
#include <functional>

namespace qz_test {

using namespace qz_rtsp_internal_server;

namespace {

// Hands every record posted into a pipe to `on_record`.
template <typename Sinker, typename Record>
class Consumer : public Sinker {
 public:
  using OnRecord = std::function<void(const std::shared_ptr<Record>&)>;
  explicit Consumer(OnRecord on_record) : on_record_(std::move(on_record)) {}
  void OnRtspPacket(const std::shared_ptr<Record>& record) override { on_record_(record); }

 private:
  OnRecord on_record_;
};

}  // namespace

std::shared_ptr<FakeRtspServer> FakeRtspServer::Create(void* handle, bool accept) {
  std::shared_ptr<FakeRtspServer> server(new FakeRtspServer(handle, accept));
  QZRtspServerMgr::Instance()->RegisterServer(handle, server);
  return server;
}

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
  QZRtspPacketPiple* p = piple.get();
  std::shared_ptr<QZRtspVideoSinker> video =
      std::make_shared<Consumer<QZRtspVideoSinker, QZRtspVideoPacket>>([this, p](const auto& r) {
        ReceivedVideo received{r, {}, {}, {}};
        p->GetVpsSpsPps(received.vps, received.sps, received.pps);
        std::lock_guard<std::mutex> lock(mutex_);
        video_.push_back(std::move(received));
      });
  std::shared_ptr<QZRtspAudioSinker> audio =
      std::make_shared<Consumer<QZRtspAudioSinker, QZRtspAudioPacket>>([this, p](const auto& r) {
        ReceivedAudio received{r, {}, p->AudioSampleRate(), p->AudioChannels()};
        p->GetAudioSpecificConfig(received.config);
        std::lock_guard<std::mutex> lock(mutex_);
        audio_.push_back(std::move(received));
      });
  piple->AddVideoSinker(video);
  piple->AddAudioSinker(audio);
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

}  // namespace qz_test
