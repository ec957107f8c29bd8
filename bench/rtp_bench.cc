// RTP packetization of one 200 KB H.264 key frame (parameter sets and an IDR
// slice, FU-A fragments of 1400 bytes), built once for every client as the
// server does: packets per second and bytes per second.
//
//   build/bench/qz_bench_rtp
#include <benchmark/benchmark.h>

#include <list>
#include <memory>
#include <vector>

#include "protocol/rtsp_in_server/rtp/qz_rtp_h264.h"
#include "protocol/rtsp_in_server/rtp/qz_rtp_track_writer.h"
#include "tests/fakes/test_support.h"

namespace {

using qz_rtsp_internal_server::H264Packetizer;
using qz_rtsp_internal_server::QZRtspPacketData;
using qz_rtsp_internal_server::RtpPacket;
using qz_rtsp_internal_server::RtpTrackWriter;

void BM_PacketizeKeyFrame200KB(benchmark::State& state) {
  std::list<std::shared_ptr<QZRtspPacketData>> units = {
      qz_test::PacketData({0x67, 0x42, 0xC0, 0x1E, 0xDA, 0x02, 0x80}),
      qz_test::PacketData({0x68, 0xCE, 0x3C, 0x80})};
  std::vector<QZ_BYTE> idr(200 * 1024, 0x5A);
  idr[0] = 0x65;
  units.push_back(qz_test::PacketData(idr));
  RtpTrackWriter writer(0, 96, 90000, 0x1234, 1, 0, 0);
  std::vector<std::shared_ptr<RtpPacket>> packets;
  size_t total_packets = 0;
  long long ms = 0;
  for (auto _ : state) {
    packets.clear();
    H264Packetizer packetizer(units, 1400);
    ms += 33;
    writer.Packetize(packetizer, 1400, writer.RtpTime(ms, 0), ms, ms, true, true, packets);
    total_packets += packets.size();
    benchmark::DoNotOptimize(packets.data());
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * 200 * 1024);
  state.counters["packets_per_frame"] = static_cast<double>(packets.size());
  state.counters["packets_per_second"] =
      benchmark::Counter(static_cast<double>(total_packets), benchmark::Counter::kIsRate);
}
BENCHMARK(BM_PacketizeKeyFrame200KB);

}  // namespace

BENCHMARK_MAIN();
