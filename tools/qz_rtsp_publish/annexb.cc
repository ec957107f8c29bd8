#include "tools/qz_rtsp_publish/annexb.h"

#include "topcommon/qz_h2645/qz_h2645_nal_unit_type.h"

namespace qz_tools {

qz_publisher::QZ_MediaPacketRefPtr MakeMediaPacket(bool video,
                                                   QZ_MEDIA_CODEC_ID codec,
                                                   const uint8_t* data,
                                                   size_t size,
                                                   bool key,
                                                   long long timestamp_ms) {
  using qz_publisher::QZMediaPacket;
  return qz_publisher::QZ_MediaPacketRefPtr(new qz_base::RefCountedObject<QZMediaPacket>(
      video ? QZMediaPacket::MediaTypeVideo : QZMediaPacket::MediaTypeAudio, codec, data,
      static_cast<int>(size), key, timestamp_ms));
}

bool IsRandomAccessPoint(const uint8_t* au, size_t au_size, bool h265) {
  constexpr int kH265Cra = 21;  // the last IRAP type in use; 22 and 23 are reserved
  qz_h2645::NalUnitList list;
  if (au == nullptr || !list.PaserNalUnits(au, static_cast<QZ_UINT32>(au_size), !h265)) {
    return false;
  }
  for (const auto& item : list.GetList()) {
    const int type = item.Type();
    if (h265 ? type >= qz_h2645::kH265BlaWLp && type <= kH265Cra : type == qz_h2645::kH264Idr) {
      return true;
    }
  }
  return false;
}

namespace {

bool Collect(const uint8_t* data,
             size_t size,
             bool h265,
             std::vector<uint8_t>& vps,
             std::vector<uint8_t>& sps,
             std::vector<uint8_t>& pps) {
  qz_h2645::NalUnitList list;
  if (data == nullptr || !list.PaserNalUnits(data, static_cast<QZ_UINT32>(size), !h265)) {
    return false;
  }
  for (const auto& item : list.GetList()) {
    const int type = item.Type();
    std::vector<uint8_t>* target = nullptr;
    if (h265) {
      target = type == qz_h2645::kH265Vps   ? &vps
               : type == qz_h2645::kH265Sps ? &sps
               : type == qz_h2645::kH265Pps ? &pps
                                            : nullptr;
    } else {
      target = type == qz_h2645::kH264Sps ? &sps : type == qz_h2645::kH264Pps ? &pps : nullptr;
    }
    if (target != nullptr && target->empty()) {
      target->assign(item.Data(), item.Data() + item.Size());
    }
  }
  return !sps.empty() && !pps.empty() && (!h265 || !vps.empty());
}

}  // namespace

void AttachParameterSets(qz_publisher::QZMediaPacket& packet,
                         bool h265,
                         const uint8_t* au,
                         size_t au_size,
                         const std::vector<uint8_t>& extradata) {
  std::vector<uint8_t> vps, sps, pps;
  if (!Collect(au, au_size, h265, vps, sps, pps) && !extradata.empty()) {
    vps.clear();
    sps.clear();
    pps.clear();
    Collect(extradata.data(), extradata.size(), h265, vps, sps, pps);
  }
  if (!sps.empty())
    packet.SetExtraData("sps", sps);
  if (!pps.empty())
    packet.SetExtraData("pps", pps);
  if (h265 && !vps.empty())
    packet.SetExtraData("vps", vps);
}

}  // namespace qz_tools
