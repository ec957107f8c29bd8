// Interop proof of the record layout: reads an Annex-B elementary stream
// (H.264 or H.265, with access unit delimiters), pushes its access units
// through an RtspSinker into a pipe, and writes every record back out as
// Annex-B (a start code in front of each NAL unit). The output must decode
// like the input. With --user-data TEXT an item is posted before every
// access unit, so each H.264 record carries a user-data SEI.
//
//   record_roundtrip h264|h265 IN OUT [--user-data TEXT]
#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "protocol/rtsp_in_server/qz_rtsp_server_mgr.h"
#include "publisher/qz_rtsp_sinker.h"
#include "tests/fakes/fake_rtsp_server.h"
#include "tests/fakes/test_support.h"
#include "tests/publisher/rtsp_sinker_test_peer.h"
#include "topcommon/qz_event_mgr.h"
#include "topcommon/qz_h2645/qz_h2645_nal_unit_type.h"
#include "utility/qz_log.h"

int main(int argc, char** argv) {
  if (argc != 4 && argc != 6) {
    std::fprintf(stderr, "usage: record_roundtrip h264|h265 IN OUT [--user-data TEXT]\n");
    return 2;
  }
  const bool h265 = std::string(argv[1]) == "h265";
  const std::string user_data = argc == 6 ? argv[5] : "";
  std::ifstream in(argv[2], std::ios::binary);
  const std::vector<uint8_t> stream((std::istreambuf_iterator<char>(in)), {});
  qz_h2645::NalUnitList all;
  if (!all.PaserNalUnits(stream.data(), static_cast<QZ_UINT32>(stream.size()), !h265)) {
    std::fprintf(stderr, "record_roundtrip: no NAL units in %s\n", argv[2]);
    return 1;
  }
  qz_utility::SetLogSinkForTesting([](const std::string&) {});

  void* handle = reinterpret_cast<void*>(0xE2E);
  auto server = qz_test::FakeRtspServer::Create(handle);
  qz_top_common::EventMgr events;
  qz_publisher::RtspSinker sinker(&events, "roundtrip", false, true, 4);
  sinker.SetRtspServers({handle});
  qz_publisher::RtspSinkerTestPeer peer(sinker);

  // Access units begin at their delimiters; each is pushed as the Annex-B
  // bytes from its delimiter to the next.
  const int aud = h265 ? int{qz_h2645::kH265Aud} : int{qz_h2645::kH264Aud};
  const auto& units = all.GetList();
  std::vector<std::pair<size_t, size_t>> access_units;  // [first unit, last unit)
  for (size_t i = 0; i < units.size(); ++i) {
    if (units[i].Type() == aud || access_units.empty()) {
      access_units.emplace_back(i, i + 1);
    } else {
      access_units.back().second = i + 1;
    }
  }
  long long ts = 0;
  bool session = false;
  for (const auto& au : access_units) {
    std::vector<uint8_t> bytes;
    std::vector<uint8_t> vps, sps, pps;
    bool key = false;
    for (size_t i = au.first; i < au.second; ++i) {
      bytes.insert(bytes.end(), {0, 0, 0, 1});
      bytes.insert(bytes.end(), units[i].Data(), units[i].Data() + units[i].Size());
      const int type = units[i].Type();
      key = key || (h265 ? type >= 16 && type <= 23 : type == qz_h2645::kH264Idr);
      const std::vector<uint8_t> copy(units[i].Data(), units[i].Data() + units[i].Size());
      if (h265 && type == qz_h2645::kH265Vps)
        vps = copy;
      if (type == (h265 ? int{qz_h2645::kH265Sps} : int{qz_h2645::kH264Sps}))
        sps = copy;
      if (type == (h265 ? int{qz_h2645::kH265Pps} : int{qz_h2645::kH264Pps}))
        pps = copy;
    }
    auto packet =
        qz_test::MakePacket(qz_publisher::QZMediaPacket::MediaTypeVideo,
                            h265 ? QZ_MEDIA_CODEC_ID_H265 : QZ_MEDIA_CODEC_ID_H264, bytes, key, ts);
    if (!sps.empty())
      packet->SetExtraData("sps", sps);
    if (!pps.empty())
      packet->SetExtraData("pps", pps);
    if (!vps.empty())
      packet->SetExtraData("vps", vps);
    if (!session) {
      peer.SaveInitPacket(packet);
      peer.InitRtsp();
      peer.set_time_origin(0);
      session = true;
    }
    if (!user_data.empty()) {
      auto item = std::make_shared<qz_common::PublisherUserData>();
      item->SetUTF8String(user_data);
      sinker.PostUserData(item);
    }
    peer.SendVideoPacket(packet);
    ts += 40;
  }
  std::ofstream out(argv[3], std::ios::binary);
  size_t records = 0;
  for (const auto& received : server->video()) {
    ++records;
    for (const auto& unit : received.record->nal_units_) {
      static const char kStartCode[4] = {0, 0, 0, 1};
      out.write(kStartCode, 4);
      out.write(reinterpret_cast<const char*>(unit->data_.get()), unit->size_);
    }
  }
  server->Unregister();
  std::printf("%zu access units in, %zu records out\n", access_units.size(), records);
  return records == access_units.size() ? 0 : 1;
}
