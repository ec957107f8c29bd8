#include "protocol/rtsp_push/qz_rtsp_pusher.h"

#include <algorithm>
#include <asio.hpp>
#include <atomic>
#include <chrono>
#include <future>
#include <map>
#include <mutex>
#include <thread>

#include "protocol/rtsp_in_server/media/qz_rtsp_io_gate.h"
#include "protocol/rtsp_in_server/media/qz_rtsp_stream.h"
#include "protocol/rtsp_in_server/qz_rtsp_server_mgr.h"
#include "protocol/rtsp_in_server/tls/qz_tls_client.h"
#include "protocol/rtsp_in_server/wire/qz_rtsp_url.h"
#include "protocol/rtsp_push/qz_push_connection.h"
#include "utility/qz_log.h"

namespace qz_rtsp_internal_server {

using qz_utility::LogFormat;

class QZRtspPusher::Impl : public QZRtspPipeAcceptor {
 public:
  explicit Impl(QZRtspPushOptions options);
  ~Impl() override { Stop(); }

  bool Start();
  void Stop();
  bool running() const { return running_.load(); }
  QZRtspPushStats Stats() const;

  bool AcceptPiple(const std::shared_ptr<QZRtspPacketPiple>& piple, std::string& why) override;
  void WithdrawPiple(const std::shared_ptr<QZRtspPacketPiple>& piple) override;

 private:
  static constexpr int kTickMs = 250;
  // A recording that lasted this long proved the relay: the failure that
  // ends it starts the back-off again at 1 s. One that ended sooner (a
  // relay that drops every push right after RECORD) counts as one more
  // failure in a row, or such a relay would be asked every second, each
  // time with a new key frame from the encoder.
  static constexpr long long kProvenRecordingMs = 30000;
  // Network thread.
  void OnTick();
  void Connect();
  void OnFailed(const std::string& error);
  void OnRecording();
  void RequestKeyFrame();
  void EndPush(std::function<void()> done);
  void SetState(const std::string& state);
  long long NowMs() const { return RtspClock::System().SteadyMs(); }

  QZRtspPushOptions options_;
  RtspUrl url_;
  std::unique_ptr<TlsClientContext> tls_;  // rtsps:// only
  asio::io_context io_;
  std::unique_ptr<asio::executor_work_guard<asio::io_context::executor_type>> work_;
  std::unique_ptr<asio::steady_timer> tick_;
  std::thread thread_;
  std::atomic<bool> running_{false};

  mutable std::mutex mutex_;  // guards stream_ between the publisher's threads and Stop()
  std::shared_ptr<RtspIoGate> gate_;
  std::shared_ptr<RtspStream> stream_;

  // Network thread.
  std::shared_ptr<RtspStream> pushing_;  // the stream the connections send
  std::shared_ptr<PushConnection> connection_;
  int failures_ = 0;  // attempts in a row that did not record for kProvenRecordingMs
  long long recording_since_ms_ = -1;  // of the current connection; -1: not recording
  long long retry_at_ms_ = 0;
  long long last_key_request_ms_ = -1000000;
  bool key_request_deferred_ = false;
  std::vector<RtpTrackInfo> announced_;
  // The EndPush()es whose connection has not closed yet, by number; Stop()
  // ends them at once: a socket must close while the io_context still runs.
  std::map<int, std::function<void()>> ending_;
  int endings_ = 0;

  PushCounters counters_;
  std::atomic<unsigned long long> attempts_{0};
  std::atomic<unsigned long long> recordings_{0};
  std::atomic<unsigned long long> key_frame_requests_{0};
  mutable std::mutex stats_mutex_;  // guards the four below
  std::string state_ = "stopped";
  std::string stream_name_;
  std::string last_error_;
  long long stat_retry_at_ms_ = 0;
};

// ---- public face ----------------------------------------------------------------

QZRtspPusher::QZRtspPusher(QZRtspPushOptions options)
    : impl_(std::make_shared<Impl>(std::move(options))) {
  QZRtspServerMgr::Instance()->RegisterServer(this, impl_);
}

QZRtspPusher::~QZRtspPusher() {
  QZRtspServerMgr::Instance()->UnregisterServer(this);
  impl_->Stop();
}

bool QZRtspPusher::Start() {
  return impl_->Start();
}

void QZRtspPusher::Stop() {
  impl_->Stop();
}

bool QZRtspPusher::IsRunning() const {
  return impl_->running();
}

QZRtspPushStats QZRtspPusher::GetStats() const {
  return impl_->Stats();
}

// ---- lifecycle ----------------------------------------------------------------------

QZRtspPusher::Impl::Impl(QZRtspPushOptions options) : options_(std::move(options)) {
  ParseRtspUrl(options_.url, url_);
  if (url_.user.empty()) {
    url_.user = options_.user;
    url_.password = options_.password;
  }
}

bool QZRtspPusher::Impl::Start() {
  if (running_.load()) {
    return true;
  }
  RtspUrl parsed;
  std::string why;
  if (!ParseRtspUrl(options_.url, parsed)) {
    why = "not an rtsp:// or rtsps:// URL with a host";
  } else if (parsed.tls && options_.udp) {
    why = "an rtsps:// push sends its media inside TLS: UDP would send it in clear";
  } else if (parsed.tls) {
    TlsClientTrust trust;
    trust.ca_file = options_.tls_ca_file;
    trust.fingerprint = options_.tls_fingerprint;
    trust.verify = options_.tls_verify;
    tls_ = TlsClientContext::Create(trust, why);
  }
  if (!why.empty()) {
    LogFormat("VartoLogIOS [E] QZRtspPusher::Start cannot push to '%s': %s\n",
              url_.WithoutCredentials().c_str(), why.c_str());
    return false;
  }
  if (thread_.joinable()) {
    thread_.join();  // the thread of a Stop() called from a callback
  }
  io_.restart();
  gate_ = std::make_shared<RtspIoGate>(
      [this](std::function<void()> batch) { asio::post(io_, std::move(batch)); });
  work_.reset(new asio::executor_work_guard<asio::io_context::executor_type>(io_.get_executor()));
  tick_.reset(new asio::steady_timer(io_));
  failures_ = 0;
  retry_at_ms_ = 0;
  SetState("idle");
  {
    std::lock_guard<std::mutex> lock(mutex_);
    running_.store(true);
  }
  OnTick();
  thread_ = std::thread([this] { io_.run(); });
  return true;
}

void QZRtspPusher::Impl::Stop() {
  std::shared_ptr<RtspStream> stream;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (!running_.load()) {
      if (thread_.joinable() && std::this_thread::get_id() != thread_.get_id()) {
        thread_.join();
      }
      return;
    }
    running_.store(false);
    stream.swap(stream_);
  }
  if (stream) {
    stream->Detach();
  }
  gate_->Close();
  auto shutdown = [this](std::function<void()> done) {
    tick_->cancel();
    // A TEARDOWN still under way (the stream was withdrawn just before, and
    // the relay does not read) is cut short.
    auto ending = std::move(ending_);
    ending_.clear();
    for (auto& end : ending) {
      end.second();
    }
    EndPush([this, done] {
      pushing_.reset();
      SetState("stopped");
      done();
    });
  };
  if (std::this_thread::get_id() == thread_.get_id()) {
    // From the key-frame callback: the thread ends when it returns; the
    // next Start() or the destructor joins it.
    shutdown([this] {
      work_.reset();
      io_.stop();
    });
    return;
  }
  std::promise<void> done;
  asio::post(io_, [&] { shutdown([&done] { done.set_value(); }); });
  done.get_future().wait();
  work_.reset();
  io_.stop();
  thread_.join();
  io_.restart();
  io_.poll();  // handlers that never ran let go of what they hold
  tick_.reset();
}

// Ends the current push: TEARDOWN when recording, bounded by half a second
// for a relay that does not read; `done` runs once, when it is over.
void QZRtspPusher::Impl::EndPush(std::function<void()> done) {
  std::shared_ptr<PushConnection> connection = std::move(connection_);
  if (!connection) {
    done();
    return;
  }
  auto once = std::make_shared<std::function<void()>>(std::move(done));
  auto timer = std::make_shared<asio::steady_timer>(io_, std::chrono::milliseconds(500));
  const int number = ++endings_;
  auto finish = [this, number, once, timer, connection] {
    ending_.erase(number);
    timer->cancel();
    connection->Close();
    if (*once) {
      auto f = std::move(*once);
      *once = nullptr;
      f();
    }
  };
  timer->async_wait([finish](const asio::error_code& ec) {
    if (!ec) {
      finish();
    }
  });
  ending_[number] = finish;
  connection->Finish(finish);
}

// ---- pipes --------------------------------------------------------------------------

bool QZRtspPusher::Impl::AcceptPiple(const std::shared_ptr<QZRtspPacketPiple>& piple,
                                     std::string& why) {
  std::shared_ptr<RtspStream> stream;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (!running_.load()) {
      why = "the pusher is not running";
    } else if (stream_) {
      why = "a pusher sends one stream, and it sends '" + stream_->name() + "'";
    }
    if (!why.empty()) {
      LogFormat("VartoLogIOS [E] QZRtspPusher::AcceptPiple refused stream '%s': %s\n",
                piple->StreamName().c_str(), why.c_str());
      return false;
    }
    RtspStreamLimits limits;
    limits.max_payload = options_.rtp_payload_size;
    stream = std::make_shared<RtspStream>(piple, gate_, limits, RtspRandom::Crypto());
    stream->set_on_packets([this](RtspStream&) {
      if (connection_) {
        connection_->OnPackets();
      }
    });
    stream->set_on_cache_lost([this](RtspStream&) { RequestKeyFrame(); });
    stream_ = stream;
  }
  {
    std::lock_guard<std::mutex> lock(stats_mutex_);
    stream_name_ = stream->name();
  }
  stream->Attach();
  piple->SetRtspURL(url_.WithoutCredentials());
  gate_->Post(
      [this, stream] {
        pushing_ = stream;
        failures_ = 0;
        retry_at_ms_ = 0;
        Connect();
      },
      false);
  return true;
}

void QZRtspPusher::Impl::WithdrawPiple(const std::shared_ptr<QZRtspPacketPiple>& piple) {
  std::shared_ptr<RtspStream> stream;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (!stream_ || stream_->piple() != piple) {
      return;
    }
    stream.swap(stream_);
  }
  stream->Detach();
  gate_->Post(
      [this, stream] {
        if (pushing_ != stream) {
          return;
        }
        // Let go of the stream before the TEARDOWN, not after its answer: a
        // tick in between would find no connection but a stream, and
        // connect again to announce a stream that is gone.
        pushing_.reset();
        EndPush([this] {
          if (!pushing_) {  // not a stream posted since
            SetState("idle");
          }
        });
      },
      false);
}

// ---- the push -----------------------------------------------------------------------

void QZRtspPusher::Impl::SetState(const std::string& state) {
  std::lock_guard<std::mutex> lock(stats_mutex_);
  state_ = state;
}

namespace {

// Whether a relay told of `announced` can take the stream that now has
// `tracks`: the same tracks, each with its codec, clock and channels. New
// parameter sets of the same codec travel in band with the key frames.
bool SameTracks(const std::vector<RtpTrackInfo>& tracks,
                const std::vector<RtpTrackInfo>& announced) {
  return std::equal(tracks.begin(), tracks.end(), announced.begin(), announced.end(),
                    [](const RtpTrackInfo& a, const RtpTrackInfo& b) {
                      return a.is_video == b.is_video && a.codec == b.codec &&
                             a.clock_rate == b.clock_rate && a.channels == b.channels;
                    });
}

}  // namespace

void QZRtspPusher::Impl::OnTick() {
  const long long now = NowMs();
  if (connection_) {
    connection_->Tick();
    // New codecs or tracks need a new ANNOUNCE: the relay's SDP is stale.
    if (connection_ && connection_->recording() && pushing_ &&
        !SameTracks(pushing_->Describe().Tracks(), connection_->announced())) {
      LogFormat("VartoLogIOS [I] QZRtspPusher %s: the stream's tracks changed; announcing again\n",
                url_.WithoutCredentials().c_str());
      EndPush([] {});
      retry_at_ms_ = now;
    }
  }
  if (!connection_ && pushing_ && now >= retry_at_ms_) {
    Connect();
  }
  if (key_request_deferred_ && now - last_key_request_ms_ >= 1000) {
    RequestKeyFrame();
  }
  tick_->expires_after(std::chrono::milliseconds(kTickMs));
  tick_->async_wait([this](const asio::error_code& ec) {
    if (!ec) {
      OnTick();
    }
  });
}

void QZRtspPusher::Impl::Connect() {
  if (connection_ || !pushing_ || !running_.load()) {
    return;
  }
  if (!pushing_->piple()->IsHasAVConfig()) {
    SetState("waiting for the stream's description");
    return;  // the tick looks again
  }
  ++attempts_;
  recording_since_ms_ = -1;
  PushConnection::Env env;
  env.io = &io_;
  env.url = url_;
  env.tls = tls_.get();
  env.udp = options_.udp;
  env.allow_basic_in_clear = options_.allow_basic_in_clear;
  env.response_timeout_ms = options_.response_timeout_ms;
  env.write_stall_timeout_ms = options_.write_stall_timeout_ms;
  env.counters = &counters_;
  env.on_state = [this](const std::string& state) { SetState(state); };
  env.on_recording = [this] { OnRecording(); };
  env.on_failed = [this](const std::string& error) { OnFailed(error); };
  env.request_key_frame = [this] { RequestKeyFrame(); };
  connection_ = std::make_shared<PushConnection>(std::move(env), pushing_);
  connection_->Start();
}

void QZRtspPusher::Impl::OnRecording() {
  recording_since_ms_ = NowMs();
  if (++recordings_ > 1) {
    LogFormat("VartoLogIOS [I] QZRtspPusher recording to %s again (%s)\n",
              url_.WithoutCredentials().c_str(), options_.udp ? "UDP" : "TCP");
  } else {
    LogFormat("VartoLogIOS [I] QZRtspPusher recording to %s (%s)\n",
              url_.WithoutCredentials().c_str(), options_.udp ? "UDP" : "TCP");
  }
}

void QZRtspPusher::Impl::OnFailed(const std::string& error) {
  // Let the connection's handlers unwind before it goes.
  asio::post(io_, [connection = std::move(connection_)] {});
  if (recording_since_ms_ >= 0 && NowMs() - recording_since_ms_ >= kProvenRecordingMs) {
    failures_ = 0;
  }
  ++failures_;
  const int delay_s = PushRetryDelayS(failures_, options_.max_retry_delay_s);
  retry_at_ms_ = NowMs() + delay_s * 1000LL;
  LogFormat("VartoLogIOS [E] QZRtspPusher %s: %s; next attempt in %d s\n",
            url_.WithoutCredentials().c_str(), error.c_str(), delay_s);
  std::lock_guard<std::mutex> lock(stats_mutex_);
  last_error_ = error;
  state_ = "retrying";
  stat_retry_at_ms_ = retry_at_ms_;
}

void QZRtspPusher::Impl::RequestKeyFrame() {
  const long long now = NowMs();
  if (now - last_key_request_ms_ < 1000) {
    key_request_deferred_ = true;  // asked for when the second ends
    return;
  }
  key_request_deferred_ = false;
  last_key_request_ms_ = now;
  if (options_.on_key_frame_request && pushing_ && running_.load()) {
    ++key_frame_requests_;
    options_.on_key_frame_request(pushing_->name());
  }
}

QZRtspPushStats QZRtspPusher::Impl::Stats() const {
  QZRtspPushStats stats;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (stream_) {
      const QZRtspStreamStats stream = stream_->Stats();
      stats.frames_dropped_stalled = stream.frames_dropped_stalled;
      stats.write_delay = stream.write_delay;
      stats.push_delay = stream.push_delay;
    }
  }
  stats.url = url_.WithoutCredentials();
  stats.udp = options_.udp;
  stats.attempts = attempts_.load();
  stats.recordings = recordings_.load();
  stats.reconnects = stats.recordings > 1 ? stats.recordings - 1 : 0;
  stats.bytes_sent = counters_.bytes_sent.load();
  stats.packets_sent = counters_.packets_sent.load();
  {
    std::lock_guard<std::mutex> lock(counters_.reception_mutex);
    const RtcpReception& r = counters_.reception;
    stats.receiver_reports = r.reports;
    stats.fraction_lost = r.fraction_lost;
    stats.cumulative_lost = r.cumulative_lost;
    stats.jitter_ms = r.jitter_ms;
    stats.rtt_ms = r.rtt_ms;
  }
  stats.packets_dropped = counters_.packets_dropped.load();
  stats.key_frame_requests = key_frame_requests_.load();
  std::lock_guard<std::mutex> lock(stats_mutex_);
  stats.state = state_;
  stats.recording = state_ == "recording";
  stats.stream = stream_name_;
  stats.last_error = last_error_;
  if (state_ == "retrying") {
    const long long left = stat_retry_at_ms_ - RtspClock::System().SteadyMs();
    stats.retry_in_s = left > 0 ? static_cast<int>((left + 999) / 1000) : 0;
  }
  return stats;
}

}  // namespace qz_rtsp_internal_server
