#include "topcommon/qz_h264_sei.h"

namespace qz_top_common {
namespace {

constexpr QZ_BYTE kPayloadTypeUserDataUnregistered = 5;
constexpr QZ_BYTE kSeiNalHeader = 0x06;  // forbidden 0, nal_ref_idc 0, type 6
constexpr size_t kUuidSize = 16;

// payloadType and payloadSize are coded as a run of 0xFF bytes, each adding
// 255, and a last byte below 255 (H.264 7.3.2.3.1).
void WriteSeiValue(std::vector<unsigned char>& out, size_t value) {
  while (value >= 255) {
    out.push_back(0xFF);
    value -= 255;
  }
  out.push_back(static_cast<unsigned char>(value));
}

}  // namespace

const QZ_BYTE H264Sei::kBinaryUuid[16] = {0x7f, 0x3e, 0x9b, 0x41, 0x0e, 0xb6, 0x4f, 0xa3,
                                          0x9a, 0x77, 0x8d, 0x03, 0xea, 0x67, 0xc8, 0xfb};
const QZ_BYTE H264Sei::kTextUuid[16] = {0x0d, 0x54, 0xc0, 0x6f, 0xc5, 0x98, 0x4f, 0x3f,
                                        0xbf, 0xaf, 0x86, 0x1e, 0xa1, 0xde, 0x01, 0xea};

bool H264Sei::WriteUserDataUnregistered(std::vector<unsigned char>& sei_message,
                                        const QZ_BYTE uuid[16],
                                        const QZ_BYTE* data,
                                        size_t size) {
  sei_message.push_back(kPayloadTypeUserDataUnregistered);
  WriteSeiValue(sei_message, kUuidSize + size);
  sei_message.insert(sei_message.end(), uuid, uuid + kUuidSize);
  if (size > 0) {
    sei_message.insert(sei_message.end(), data, data + size);
  }
  return true;
}

bool H264Sei::WriteQZSDKSeiMessage(std::vector<unsigned char>& sei_message,
                                   const QZ_BYTE* data,
                                   QZ_INT32 size) {
  if (size < 0 || (data == nullptr && size > 0)) {
    return false;
  }
  return WriteUserDataUnregistered(sei_message, kBinaryUuid, data, static_cast<size_t>(size));
}

bool H264Sei::WriteQZSDKSeiMessage(std::vector<unsigned char>& sei_message,
                                   const std::string& text) {
  return WriteUserDataUnregistered(sei_message, kTextUuid,
                                   reinterpret_cast<const QZ_BYTE*>(text.data()), text.size());
}

void H264Sei::WriteRbspTrailingBits(std::vector<unsigned char>& rbsp) {
  rbsp.push_back(0x80);
}

void H264Sei::WriteSeiNalUnit(std::vector<unsigned char>& nal_unit,
                              const QZ_BYTE* rbsp,
                              QZ_INT32 size,
                              bool without_start_code,
                              bool short_start_code,
                              bool without_emulation_prevention) {
  nal_unit.clear();
  if (rbsp == nullptr || size < 1) {
    return;
  }
  nal_unit.reserve(static_cast<size_t>(size) + size / 64 + 6);
  if (!without_start_code) {
    if (!short_start_code) {
      nal_unit.push_back(0x00);
    }
    nal_unit.push_back(0x00);
    nal_unit.push_back(0x00);
    nal_unit.push_back(0x01);
  }
  nal_unit.push_back(kSeiNalHeader);
  if (without_emulation_prevention) {
    nal_unit.insert(nal_unit.end(), rbsp, rbsp + size);
    return;
  }
  // H.264 7.4.1: within the NAL unit, 00 00 followed by 00, 01, 02 or 03
  // must be broken up with an emulation_prevention_three_byte.
  int zeros = 0;
  for (QZ_INT32 i = 0; i < size; ++i) {
    const QZ_BYTE b = rbsp[i];
    if (zeros >= 2 && b <= 0x03) {
      nal_unit.push_back(0x03);
      zeros = 0;
    }
    nal_unit.push_back(b);
    zeros = (b == 0) ? zeros + 1 : 0;
  }
}

}  // namespace qz_top_common
