// The sinker's hot path from a popped packet to records posted into the
// pipes (one and four pipes), and its memory per queued packet.
//
//   build/bench/qz_bench_sinker
#include <benchmark/benchmark.h>
#include <malloc.h>

#include <atomic>
#include <memory>
#include <vector>

#include "protocol/rtsp_in_server/qz_rtsp_server_mgr.h"
#include "tests/fakes/test_support.h"
#include "tests/publisher/rtsp_sinker_test_peer.h"
#include "topcommon/qz_event_mgr.h"
#include "utility/qz_log.h"

namespace {

using qz_rtsp_internal_server::QZRtspPacketPiple;

// Takes every pipe and counts the records posted into it.
class CountingServer : public qz_rtsp_internal_server::QZRtspPipeAcceptor,
                       public qz_rtsp_internal_server::QZRtspVideoSinker {
 public:
  bool AcceptPiple(const std::shared_ptr<QZRtspPacketPiple>& piple, std::string&) override {
    std::shared_ptr<qz_rtsp_internal_server::QZRtspVideoSinker> self(self_);
    piple->AddVideoSinker(self);
    pipes_.push_back(piple);
    return true;
  }
  void WithdrawPiple(const std::shared_ptr<QZRtspPacketPiple>&) override { pipes_.clear(); }
  void OnRtspPacket(const std::shared_ptr<qz_rtsp_internal_server::QZRtspVideoPacket>&) override {
    ++records_;
  }
  std::weak_ptr<qz_rtsp_internal_server::QZRtspVideoSinker> self_;
  std::vector<std::shared_ptr<QZRtspPacketPiple>> pipes_;
  std::atomic<long> records_{0};
};

void BM_SendH264Frame(benchmark::State& state) {
  qz_utility::SetLogSinkForTesting([](const std::string&) {});
  const int pipes = static_cast<int>(state.range(0));
  std::vector<std::shared_ptr<CountingServer>> servers;
  std::vector<void*> handles;
  for (int i = 0; i < pipes; ++i) {
    auto server = std::make_shared<CountingServer>();
    server->self_ = server;
    void* handle = reinterpret_cast<void*>(0xB000 + i);
    qz_rtsp_internal_server::QZRtspServerMgr::Instance()->RegisterServer(handle, server);
    servers.push_back(server);
    handles.push_back(handle);
  }
  qz_top_common::EventMgr events;
  qz_publisher::RtspSinker sinker(&events, "bench", false, true, 1);
  sinker.SetRtspServers(handles);
  qz_publisher::RtspSinkerTestPeer peer(sinker);
  peer.SaveInitPacket(qz_test::MakeVideo(0, true));
  peer.InitRtsp();
  peer.set_time_origin(0);
  peer.SendVideoPacket(qz_test::MakeVideo(0, true));
  // A 30 KB P frame in two slices, a typical 1080p frame at 4 Mbit/s... x2.
  std::vector<QZ_BYTE> slice(15000, 0x5A);
  slice[0] = 0x41;
  auto frame =
      qz_test::MakePacket(qz_publisher::QZMediaPacket::MediaTypeVideo, QZ_MEDIA_CODEC_ID_H264,
                          qz_test::AnnexB({slice, slice}), false, 40);
  for (auto _ : state) {
    peer.SendVideoPacket(frame);
  }
  state.SetItemsProcessed(state.iterations());
  state.counters["records_per_pipe"] = static_cast<double>(servers[0]->records_.load());
  peer.UnInitRtsp();
  for (void* handle : handles) {
    qz_rtsp_internal_server::QZRtspServerMgr::Instance()->UnregisterServer(handle);
  }
  qz_utility::SetLogSinkForTesting(nullptr);
}
BENCHMARK(BM_SendH264Frame)->Arg(1)->Arg(4);

// Heap bytes per queued audio packet of 256 bytes, queue overhead included.
void BM_QueuedPacketMemory(benchmark::State& state) {
  const int count = 10000;
  std::vector<QZ_BYTE> payload(256, 0x11);
  double per_packet = 0;
  for (auto _ : state) {
    qz_top_common::EventMgr events;
    qz_publisher::RtspSinker sinker(&events, "bench", true, true, 1);
    qz_publisher::RtspSinkerTestPeer peer(sinker);
    peer.set_send_thread_running(true);  // no stopped-backlog bound
    const size_t before = mallinfo2().uordblks;
    for (int i = 0; i < count; ++i) {
      sinker.PushPacket(qz_test::MakePacket(qz_publisher::QZMediaPacket::MediaTypeAudio,
                                            QZ_MEDIA_CODEC_ID_AAC, payload, false, i));
    }
    const size_t after = mallinfo2().uordblks;
    per_packet = static_cast<double>(after - before) / count;
    peer.set_send_thread_running(false);
  }
  state.counters["heap_bytes_per_packet"] = per_packet;
  state.counters["payload_bytes"] = static_cast<double>(payload.size());
}
BENCHMARK(BM_QueuedPacketMemory)->Iterations(3);

}  // namespace

BENCHMARK_MAIN();
