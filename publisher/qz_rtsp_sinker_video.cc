// RtspSinker: the video send paths. H.264 and H.265 access units in Annex-B
// form become QZRtspVideoPacket records of bare NAL units, posted into every
// pipe; changed parameter sets are pushed into the pipes first.
#include <cassert>
#include <cstring>
#include <new>

#include "publisher/qz_rtsp_sinker.h"
#include "topcommon/qz_h2645/qz_h2645_nal_unit_type.h"
#include "topcommon/qz_h264_sei.h"
#include "utility/qz_log.h"

namespace qz_publisher {
namespace {

using qz_h2645::NalUnitList;
using qz_utility::LogFormat;
using qz_utility::LogLine;

using ParameterSetList = std::vector<std::shared_ptr<std::vector<QZ_BYTE>>>;

constexpr size_t kAnnexBLongStartCode = 4;

// The first entry of `list`, or the packet's extra data under `key` when the
// access unit holds no set of that kind.
void FillParameterSetList(ParameterSetList& list,
                          const QZ_MediaPacketRefPtr& packet,
                          const char* key) {
  if (!list.empty()) {
    return;
  }
  std::vector<QZ_BYTE> extra = packet->GetExtraData(key);
  if (!extra.empty()) {
    list.push_back(std::make_shared<std::vector<QZ_BYTE>>(std::move(extra)));
  }
}

bool HasFirstEntry(const ParameterSetList& list) {
  return !list.empty() && list.front() && !list.front()->empty();
}

}  // namespace

// ---- NAL scanning and buffers ---------------------------------------------

QZ_UINT8* RtspSinker::FindNalStartCode(QZ_UINT8* buf, int size, int& len) const {
  len = 0;
  if (buf == nullptr || size < 1) {
    return nullptr;
  }
  QZ_UINT8* const pEnd = buf + size;
  QZ_UINT8* p = buf;
  while (p != pEnd) {
    const long remLen = pEnd - p;
    if (remLen < 3) {
      return nullptr;
    }
    if (p[0] != 0) {
      p += 1;
      continue;
    }
    if (p[1] != 0) {
      p += 2;
      continue;
    }
    if (p[2] == 1) {
      len = 3;
      return p;
    }
    if (p[2] != 0) {
      p += 3;
      continue;
    }
    if (remLen < 4) {
      return nullptr;
    }
    if (p[3] == 1) {
      len = 4;
      return p;
    }
    // A run of zeros is walked a byte at a time so that the start code is
    // reported at the last three zeros in front of the 01.
    p += (p[3] == 0) ? 1 : 4;
  }
  return nullptr;
}

QZ_UINT8* RtspSinker::FindNalType(QZ_UINT8* buf,
                                  int size,
                                  int type,
                                  int& startCodeLen,
                                  int* nalLen) const {
  startCodeLen = 0;
  if (nalLen != nullptr) {
    *nalLen = 0;
  }
  if (buf == nullptr || size < 1) {
    return nullptr;
  }
  QZ_UINT8* const pEnd = buf + size;
  int len = 0;
  QZ_UINT8* p = FindNalStartCode(buf, size, len);
  if (p == nullptr) {
    return nullptr;
  }
  QZ_UINT8* pFind = nullptr;
  for (;;) {
    assert(len > 0);
    pFind = p + len;
    if (pFind == pEnd) {
      return nullptr;
    }
    if (GetH264NalType(*pFind) == type) {
      break;
    }
    p = FindNalStartCode(pFind, static_cast<int>(pEnd - pFind), len);
    if (p == nullptr) {
      return nullptr;
    }
  }
  startCodeLen = len;
  if (nalLen != nullptr) {
    int len2 = 0;
    QZ_UINT8* pFE = FindNalStartCode(pFind, static_cast<int>(pEnd - pFind), len2);
    *nalLen = static_cast<int>((pFE != nullptr ? pFE : pEnd) - p);
  }
  return p;
}

std::shared_ptr<QZRtspPacketData> RtspSinker::MakeAUD() const {
  QZ_BYTE* aud = new QZ_BYTE[2];
  aud[0] = 0x09;  // forbidden_zero_bit 0, nal_ref_idc 0, nal_unit_type 9
  aud[1] = 0x30;  // primary_pic_type 1 (I and P), then the RBSP stop bit
  return std::make_shared<QZRtspPacketData>(aud, 2);
}

std::shared_ptr<QZRtspPacketData> RtspSinker::MakeRtspPacketData(const QZ_BYTE* data,
                                                                 QZ_INT32 size) const {
  std::shared_ptr<QZRtspPacketData> packet_data;
  if (data == nullptr || size < 1) {
    return packet_data;
  }
  QZ_BYTE* buffer = new (std::nothrow) QZ_BYTE[static_cast<size_t>(size)];
  if (buffer == nullptr) {
    return packet_data;
  }
  std::memcpy(buffer, data, static_cast<size_t>(size));
  packet_data = std::make_shared<QZRtspPacketData>(buffer, static_cast<QZ_UINT32>(size));
  return packet_data;
}

// ---- H.264 ------------------------------------------------------------------

void RtspSinker::SendVideoPacket(QZ_MediaPacketRefPtr packet) {
  assert(packet);
  switch (packet->CodecID()) {
    case QZ_MEDIA_CODEC_ID_H264:
      SendH264Packet(packet);
      break;
    case QZ_MEDIA_CODEC_ID_H265:
      SendH265Packet(packet);
      break;
    default:
      break;
  }
}

void RtspSinker::SendH264Packet(QZ_MediaPacketRefPtr packet) {
  assert(packet);
  assert(QZ_MEDIA_CODEC_ID_H264 == packet->CodecID());
  const bool is_key_frame = packet->IsKeyFrame();
  if (is_first_video_) {
    if (!is_key_frame) {
      LogFormat(
          "VartoLogIOS [I] [RtspSinker] RtspSinker SendH264Packet is_first_video_=true, but it is "
          "not key frame,, it will drop this frame, timestamp:%llu\n",
          static_cast<unsigned long long>(packet->TimeStamp()));
      return;
    }
    first_video_time_ = static_cast<QZ_UINT64>(packet->TimeStamp());
    is_first_video_ = false;
  }
  if (is_key_frame) {
    const std::vector<QZ_BYTE> sps = packet->GetExtraData("sps");
    const std::vector<QZ_BYTE> pps = packet->GetExtraData("pps");
    if (!sps.empty() && !pps.empty()) {
      if (!is_setting_video_vps_sps_pps_) {
        SetSpsPps(sps, pps);
        sps_ = sps;
        pps_ = pps;
        is_setting_video_vps_sps_pps_ = true;
      } else if (sps != sps_ || pps != pps_) {
        LogLine("VartoLogIOS [I] RtspSinker sps or pps changed, need to re-send it");
        SetSpsPps(sps, pps);
        sps_ = sps;
        pps_ = pps;
      }
    }
  }
  SendH264RemoveStartCode(packet);
}

void RtspSinker::SendH264RemoveStartCode(QZ_MediaPacketRefPtr packet) {
  if (handle_2_piple_.empty()) {
    return;
  }
  std::shared_ptr<QZRtspVideoPacket> rtsp_packet = MakeRtspPacket(packet);
  if (!rtsp_packet) {
    return;
  }
  rtsp_packet->time_stamp_ =
      static_cast<QZ_UINT64>(packet->TimeStamp()) - send_first_frame_timestamp_;
  rtsp_packet->pushed_us_ = popped_pushed_us_;
  PostToPiples(rtsp_packet);
}

std::shared_ptr<QZRtspVideoPacket> RtspSinker::MakeRtspPacket(QZ_MediaPacketRefPtr packet) {
  std::shared_ptr<QZRtspVideoPacket> rtsp_packet;
  if (packet->Data() == nullptr || packet->Size() < 1) {
    return rtsp_packet;
  }
  rtsp_packet = std::make_shared<QZRtspVideoPacket>();
  int start_code_len = 0;
  int nal_len = 0;
  std::vector<unsigned char> sei_nal_user_data;

  if (user_data_queue_) {
    std::shared_ptr<PublisherUserData> user_data = user_data_queue_->Pop();
    if (user_data && user_data->Data() != nullptr) {
      std::vector<unsigned char> sei_message;
      qz_top_common::H264Sei h264Sei;
      if (user_data->IsUtf8String()) {
        const std::string text(reinterpret_cast<const char*>(user_data->Data()));
        h264Sei.WriteQZSDKSeiMessage(sei_message, text);
      } else {
        h264Sei.WriteQZSDKSeiMessage(sei_message, user_data->Data(), user_data->Size());
      }
      h264Sei.WriteRbspTrailingBits(sei_message);
      h264Sei.WriteSeiNalUnit(sei_nal_user_data, sei_message.data(),
                              static_cast<QZ_INT32>(sei_message.size()), false, false, false);
      sei_nal_user_data.shrink_to_fit();
    }
  }

  rtsp_packet->codec_id_ = QZ_MEDIA_CODEC_ID_H264;
  rtsp_packet->is_key_frame_ = packet->IsKeyFrame();
  if (std::shared_ptr<QZRtspPacketData> aud_packet_data = MakeAUD()) {
    rtsp_packet->nal_units_.push_back(aud_packet_data);
  }

  auto append_sei = [&]() {
    if (sei_nal_user_data.size() > kAnnexBLongStartCode) {
      if (auto sei = MakeRtspPacketData(
              sei_nal_user_data.data() + kAnnexBLongStartCode,
              static_cast<QZ_INT32>(sei_nal_user_data.size() - kAnnexBLongStartCode))) {
        rtsp_packet->nal_units_.push_back(sei);
      }
    }
  };
  // The first unit of `type` in the packet, else the stored copy.
  auto append_parameter_set = [&](int type, const std::vector<unsigned char>& stored,
                                  const char* missing_log) {
    QZ_UINT8* pNal = FindNalType(packet->Data(), packet->Size(), type, start_code_len, &nal_len);
    if (pNal != nullptr) {
      if (auto unit = MakeRtspPacketData(pNal + start_code_len, nal_len - start_code_len)) {
        rtsp_packet->nal_units_.push_back(unit);
      }
    } else if (!stored.empty()) {
      if (auto unit = MakeRtspPacketData(stored.data(), static_cast<QZ_INT32>(stored.size()))) {
        rtsp_packet->nal_units_.push_back(unit);
      }
    } else {
      LogLine(missing_log);
    }
  };

  if (packet->IsKeyFrame()) {
    append_parameter_set(QZ_H264_NAL_SPS_TYPE, sps_,
                         "VartoLogIOS [E] RtspSinker::MakeRtspPacket does not sps data");
    append_parameter_set(QZ_H264_NAL_PPS_TYPE, pps_,
                         "VartoLogIOS [E] RtspSinker::MakeRtspPacket does not pps data");
    append_sei();
    AppendH264Units(packet, QZ_H264_NAL_IDR_TYPE, *rtsp_packet,
                    "VartoLogIOS [E] RtspSinker::MakeRtspPacket find not idr type");
  } else {
    append_sei();
    AppendH264Units(packet, QZ_H264_NAL_SLICE_TYPE, *rtsp_packet,
                    "VartoLogIOS [E] RtspSinker::MakeRtspPacket find not slice type");
  }
  return rtsp_packet;
}

// Appends every unit of `type`, in stream order, each without start code.
void RtspSinker::AppendH264Units(QZ_MediaPacketRefPtr packet,
                                 int type,
                                 QZRtspVideoPacket& record,
                                 const char* missing_log) {
  QZ_UINT8* pPos = packet->Data();
  QZ_UINT8* const pEnd = packet->Data() + packet->Size();
  bool is_found = false;
  int start_code_len = 0;
  int nal_len = 0;
  do {
    QZ_UINT8* pNal =
        FindNalType(pPos, static_cast<int>(pEnd - pPos), type, start_code_len, &nal_len);
    if (pNal == nullptr) {
      break;
    }
    if (auto unit = MakeRtspPacketData(pNal + start_code_len, nal_len - start_code_len)) {
      record.nal_units_.push_back(unit);
    }
    pPos = pNal + nal_len;
    is_found = true;
  } while (pPos < pEnd);
  if (!is_found) {
    LogLine(missing_log);
  }
}

// ---- H.265 ------------------------------------------------------------------

void RtspSinker::SendH265Packet(QZ_MediaPacketRefPtr packet) {
  assert(packet);
  assert(QZ_MEDIA_CODEC_ID_H265 == packet->CodecID());
  NalUnitList nal_unit_list;
  if (!nal_unit_list.PaserNalUnits(packet->Data(), static_cast<QZ_UINT32>(packet->Size()), false)) {
    LogLine("VartoLogIOS [E] RtspSinker::SendH265Packet parser nal units failed");
    return;
  }
  if (is_first_video_) {
    if (!packet->IsKeyFrame()) {
      LogFormat(
          "VartoLogIOS [I] [RtspSinker] RtspSinker SendH265Packet is_first_video_=true, but it is "
          "not key frame,, it will drop this frame, timestamp:%llu\n",
          static_cast<unsigned long long>(packet->TimeStamp()));
      return;
    }
    if (!nal_unit_list.IsKeyFrame()) {
      LogFormat(
          "VartoLogIOS [I] [RtspSinker] RtspSinker SendH265Packet is_first_video_=true, but nal is "
          "not key frame,, it will drop this frame, timestamp:%llu\n",
          static_cast<unsigned long long>(packet->TimeStamp()));
      return;
    }
    first_video_time_ = static_cast<QZ_UINT64>(packet->TimeStamp());
    is_first_video_ = false;
  }
  if (packet->IsKeyFrame()) {
    UpdateH265ParameterSets(packet, nal_unit_list);
  }
  SendH265NalUnits(packet, nal_unit_list);
}

// In-band parameter sets take precedence over the packet's extra data; only
// the first set of each kind counts.
void RtspSinker::UpdateH265ParameterSets(QZ_MediaPacketRefPtr packet,
                                         const NalUnitList& nal_unit_list) {
  ParameterSetList vps_list;
  ParameterSetList sps_list;
  ParameterSetList pps_list;
  nal_unit_list.GetVpsList(vps_list);
  FillParameterSetList(vps_list, packet, "vps");
  nal_unit_list.GetSpsList(sps_list);
  FillParameterSetList(sps_list, packet, "sps");
  nal_unit_list.GetPpsList(pps_list);
  FillParameterSetList(pps_list, packet, "pps");
  if (!HasFirstEntry(vps_list) || !HasFirstEntry(sps_list) || !HasFirstEntry(pps_list)) {
    return;
  }
  const std::vector<unsigned char>& vps = *vps_list.front();
  const std::vector<unsigned char>& sps = *sps_list.front();
  const std::vector<unsigned char>& pps = *pps_list.front();
  if (!is_setting_video_vps_sps_pps_) {
    SetVpsSpsPps(vps, sps, pps);
    vps_ = vps;
    sps_ = sps;
    pps_ = pps;
    is_setting_video_vps_sps_pps_ = true;
    return;
  }
  if (vps_ == vps && sps_ == sps && pps_ == pps) {
    return;
  }
  LogLine("VartoLogIOS [I] RtspSinker h265 vps, sps or pps changed, need to re-send it");
  SetVpsSpsPps(vps, sps, pps);
  vps_ = vps;
  sps_ = sps;
  pps_ = pps;
}

void RtspSinker::SendH265NalUnits(QZ_MediaPacketRefPtr packet, const NalUnitList& nal_unit_list) {
  assert(packet);
  if (handle_2_piple_.empty()) {
    return;
  }
  std::shared_ptr<QZRtspVideoPacket> rtsp_packet = MakeRtspH265Packet(packet, nal_unit_list);
  if (!rtsp_packet) {
    return;
  }
  rtsp_packet->time_stamp_ =
      static_cast<QZ_UINT64>(packet->TimeStamp()) - send_first_frame_timestamp_;
  rtsp_packet->pushed_us_ = popped_pushed_us_;
  PostToPiples(rtsp_packet);
}

std::shared_ptr<QZRtspVideoPacket> RtspSinker::MakeRtspH265Packet(
    QZ_MediaPacketRefPtr packet,
    const NalUnitList& nal_unit_list) {
  assert(packet);
  const bool is_key_frame = packet->IsKeyFrame();
  std::shared_ptr<QZRtspVideoPacket> rtsp_packet = std::make_shared<QZRtspVideoPacket>();
  rtsp_packet->codec_id_ = QZ_MEDIA_CODEC_ID_H265;
  rtsp_packet->is_key_frame_ = is_key_frame;
  auto insert_stored = [&](bool in_band, const std::vector<unsigned char>& stored,
                           const char* missing_log) {
    if (in_band) {
      return;
    }
    if (stored.empty()) {
      LogLine(missing_log);
      return;
    }
    if (auto unit = MakeRtspPacketData(stored.data(), static_cast<QZ_INT32>(stored.size()))) {
      rtsp_packet->nal_units_.push_back(unit);
    }
  };
  if (is_key_frame) {
    insert_stored(nal_unit_list.IsHasVps(), vps_,
                  "VartoLogIOS [E] RtspSinker::MakeRtspH265Packet there is no vps for 265");
    insert_stored(nal_unit_list.IsHasSps(), sps_,
                  "VartoLogIOS [E] RtspSinker::MakeRtspH265Packet there is no sps for 265");
    insert_stored(nal_unit_list.IsHasPPs(), pps_,
                  "VartoLogIOS [E] RtspSinker::MakeRtspH265Packet there is no pps for 265");
  }
  for (const qz_h2645::NalUnitItem& i : nal_unit_list.GetList()) {
    assert(!i.IsEmpty());
    if (auto unit = MakeRtspPacketData(i.Data(), static_cast<QZ_INT32>(i.Size()))) {
      rtsp_packet->nal_units_.push_back(unit);
    }
  }
  return rtsp_packet;
}

}  // namespace qz_publisher
