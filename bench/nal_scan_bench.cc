// Throughput of the start-code scanners and the NAL unit list on a realistic
// 1 MB access unit (slice payload of random bytes with emulation prevention
// applied, as an encoder leaves it), next to memchr over the same buffer.
//
//   build/bench/qz_bench_nal_scan --benchmark_counters_tabular=true
#include <benchmark/benchmark.h>

#include <cstring>
#include <random>
#include <vector>

#include "tests/publisher/rtsp_sinker_test_peer.h"
#include "topcommon/qz_event_mgr.h"
#include "topcommon/qz_h2645/qz_h2645_nal_unit_type.h"

namespace {

// An access unit of `slices` slices of equal size, each behind a start code,
// whose payload never contains 00 00 0x (x <= 3) because of emulation
// prevention.
std::vector<QZ_BYTE> MakeAccessUnit(size_t total, int slices, bool h265) {
  std::mt19937 rng(42);
  std::vector<QZ_BYTE> out;
  out.reserve(total + 64);
  const size_t per_slice = total / static_cast<size_t>(slices);
  for (int s = 0; s < slices; ++s) {
    out.insert(out.end(), {0, 0, 0, 1});
    if (h265) {
      out.insert(out.end(), {0x26, 0x01});
    } else {
      out.push_back(0x65);
    }
    int zeros = 0;
    const size_t end = out.size() + per_slice;
    while (out.size() < end) {
      // Slice data is dense: zero bytes are about as common as any other.
      QZ_BYTE b = static_cast<QZ_BYTE>(rng());
      if (zeros >= 2 && b <= 3) {
        out.push_back(3);
        zeros = 0;
      }
      out.push_back(b);
      zeros = b == 0 ? zeros + 1 : 0;
    }
    if (out.back() == 0) {
      out.push_back(0x80);
    }
  }
  return out;
}

const std::vector<QZ_BYTE>& AccessUnit(bool h265) {
  static const std::vector<QZ_BYTE> h264 = MakeAccessUnit(1 << 20, 8, false);
  static const std::vector<QZ_BYTE> hevc = MakeAccessUnit(1 << 20, 8, true);
  return h265 ? hevc : h264;
}

void SetBytes(benchmark::State& state, size_t size) {
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * size));
}

void BM_Memchr(benchmark::State& state) {
  const auto& au = AccessUnit(false);
  for (auto _ : state) {
    const QZ_BYTE* p = au.data();
    const QZ_BYTE* end = au.data() + au.size();
    size_t hits = 0;
    while ((p = static_cast<const QZ_BYTE*>(std::memchr(p, 0x01, end - p))) != nullptr) {
      ++hits;
      ++p;
    }
    benchmark::DoNotOptimize(hits);
  }
  SetBytes(state, AccessUnit(false).size());
}
BENCHMARK(BM_Memchr);

void BM_FindNalStartCodeByteLoop(benchmark::State& state) {
  qz_top_common::EventMgr events;
  qz_publisher::RtspSinker sinker(&events, "bench", false, true, 1);
  qz_publisher::RtspSinkerTestPeer peer(sinker);
  std::vector<QZ_BYTE> au = AccessUnit(false);
  for (auto _ : state) {
    QZ_UINT8* p = au.data();
    QZ_UINT8* end = au.data() + au.size();
    int len = 0;
    int count = 0;
    while ((p = peer.FindNalStartCode(p, static_cast<int>(end - p), len)) != nullptr) {
      p += len;
      ++count;
    }
    benchmark::DoNotOptimize(count);
  }
  SetBytes(state, au.size());
}
BENCHMARK(BM_FindNalStartCodeByteLoop);

void BM_FindNalTypeIdr(benchmark::State& state) {
  qz_top_common::EventMgr events;
  qz_publisher::RtspSinker sinker(&events, "bench", false, true, 1);
  qz_publisher::RtspSinkerTestPeer peer(sinker);
  std::vector<QZ_BYTE> au = AccessUnit(false);
  for (auto _ : state) {
    QZ_UINT8* p = au.data();
    QZ_UINT8* end = au.data() + au.size();
    int scl = 0, nal_len = 0, count = 0;
    while (p < end && (p = peer.FindNalType(p, static_cast<int>(end - p), 5, scl, &nal_len))) {
      p += nal_len;
      ++count;
    }
    benchmark::DoNotOptimize(count);
  }
  SetBytes(state, au.size());
}
BENCHMARK(BM_FindNalTypeIdr);

void BM_MemchrStartCode(benchmark::State& state) {
  const auto& au = AccessUnit(false);
  for (auto _ : state) {
    const QZ_BYTE* p = au.data();
    const QZ_BYTE* end = au.data() + au.size();
    int len = 0, count = 0;
    while ((p = qz_h2645::FindStartCode(p, end, len)) != nullptr) {
      p += len;
      ++count;
    }
    benchmark::DoNotOptimize(count);
  }
  SetBytes(state, AccessUnit(false).size());
}
BENCHMARK(BM_MemchrStartCode);

void BM_NalUnitList(benchmark::State& state) {
  const bool h265 = state.range(0) != 0;
  const auto& au = AccessUnit(h265);
  for (auto _ : state) {
    qz_h2645::NalUnitList list;
    benchmark::DoNotOptimize(
        list.PaserNalUnits(au.data(), static_cast<QZ_UINT32>(au.size()), !h265));
    benchmark::DoNotOptimize(list.IsKeyFrame());
  }
  SetBytes(state, au.size());
  state.SetLabel(h265 ? "h265" : "h264");
}
BENCHMARK(BM_NalUnitList)->Arg(0)->Arg(1);

}  // namespace

BENCHMARK_MAIN();
