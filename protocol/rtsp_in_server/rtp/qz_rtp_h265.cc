#include "protocol/rtsp_in_server/rtp/qz_rtp_h265.h"

#include <algorithm>
#include <cstring>

namespace qz_rtsp_internal_server {
namespace {

constexpr uint8_t kFragmentationUnit = 49;
constexpr uint8_t kAccessUnitDelimiter = 35;

// Units worth a packet: not empty, more than the two-byte header, not a
// delimiter.
std::vector<std::shared_ptr<QZRtspPacketData>> SendableUnits(
    const std::list<std::shared_ptr<QZRtspPacketData>>& units) {
  std::vector<std::shared_ptr<QZRtspPacketData>> out;
  for (const auto& unit : units) {
    if (unit && unit->size_ >= 3 && ((unit->data_[0] >> 1) & 0x3F) != kAccessUnitDelimiter) {
      out.push_back(unit);
    }
  }
  return out;
}

}  // namespace

H265Packetizer::H265Packetizer(const std::list<std::shared_ptr<QZRtspPacketData>>& units,
                               size_t max_payload)
    : NalUnitPacketizer(SendableUnits(units), max_payload, 2) {}

size_t H265Packetizer::NextPacket(uint8_t* payload, size_t capacity, bool* last) {
  const size_t limit = Limit(capacity);
  return limit == 0 ? 0 : SingleOrFragment(payload, limit, last);
}

// FU (RFC 7798 4.4.3): PayloadHdr keeps F, LayerId and TID of the unit with
// Type 49; FU header S|E|FuType.
void H265Packetizer::WriteFuHeaders(const uint8_t* nal, uint8_t* out) const {
  out[0] = static_cast<uint8_t>((nal[0] & 0x81) | (kFragmentationUnit << 1));
  out[1] = nal[1];
  out[2] = (nal[0] >> 1) & 0x3F;
}

}  // namespace qz_rtsp_internal_server
