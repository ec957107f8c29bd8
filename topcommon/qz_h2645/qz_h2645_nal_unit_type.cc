#include "topcommon/qz_h2645/qz_h2645_nal_unit_type.h"

#include <cstring>

namespace qz_h2645 {

const QZ_BYTE* FindStartCode(const QZ_BYTE* begin, const QZ_BYTE* end, int& start_code_len) {
  start_code_len = 0;
  if (begin == nullptr || end - begin < 3) {
    return nullptr;
  }
  // Look for the 01 that ends a start code; it can stand no earlier than
  // begin + 2. Emulation prevention keeps 00 00 01 out of NAL unit payloads,
  // so every hit with two zeros in front is a real start code.
  const QZ_BYTE* p = begin + 2;
  while (p < end) {
    p = static_cast<const QZ_BYTE*>(std::memchr(p, 0x01, static_cast<size_t>(end - p)));
    if (p == nullptr) {
      return nullptr;
    }
    if (p[-1] == 0 && p[-2] == 0) {
      if (p - 3 >= begin && p[-3] == 0) {
        start_code_len = 4;
        return p - 3;
      }
      start_code_len = 3;
      return p - 2;
    }
    // This 01 cannot be one of the two zeros in front of a later 01, so the
    // next candidate stands three bytes on at the earliest.
    p += 3;
  }
  return nullptr;
}

int NalUnitItem::Type() const {
  if (IsEmpty()) {
    return -1;
  }
  return is_h264_ ? (data_[0] & 0x1F) : ((data_[0] >> 1) & 0x3F);
}

bool NalUnitList::PaserNalUnits(const QZ_BYTE* data, QZ_UINT32 size, bool is_h264) {
  is_h264_ = is_h264;
  is_key_frame_ = false;
  nal_units_.clear();
  if (data == nullptr || size < 4) {
    return false;
  }
  const QZ_BYTE* const end = data + size;
  const QZ_UINT32 header_size = is_h264 ? 1 : 2;
  int start_code_len = 0;
  const QZ_BYTE* start = FindStartCode(data, end, start_code_len);
  while (start != nullptr) {
    const QZ_BYTE* unit = start + start_code_len;
    int next_len = 0;
    const QZ_BYTE* next = FindStartCode(unit, end, next_len);
    const QZ_BYTE* unit_end = next ? next : end;
    while (unit_end > unit && unit_end[-1] == 0) {
      --unit_end;
    }
    const QZ_UINT32 unit_size = static_cast<QZ_UINT32>(unit_end - unit);
    if (unit_size > 0) {
      if (unit_size < header_size || (unit[0] & 0x80) != 0) {
        nal_units_.clear();
        return false;
      }
      nal_units_.emplace_back(unit, unit_size, is_h264);
      const int type = nal_units_.back().Type();
      if (is_h264 ? type == kH264Idr : (type >= kH265BlaWLp && type <= kH265RsvIrap23)) {
        is_key_frame_ = true;
      }
    }
    start = next;
    start_code_len = next_len;
  }
  if (nal_units_.empty()) {
    is_key_frame_ = false;
    return false;
  }
  return true;
}

bool NalUnitList::HasType(int type) const {
  for (const NalUnitItem& item : nal_units_) {
    if (item.Type() == type) {
      return true;
    }
  }
  return false;
}

void NalUnitList::CopyType(int type,
                           std::vector<std::shared_ptr<std::vector<QZ_BYTE>>>& list) const {
  for (const NalUnitItem& item : nal_units_) {
    if (item.Type() == type) {
      list.push_back(
          std::make_shared<std::vector<QZ_BYTE>>(item.Data(), item.Data() + item.Size()));
    }
  }
}

void NalUnitList::GetVpsList(std::vector<std::shared_ptr<std::vector<QZ_BYTE>>>& list) const {
  CopyType(VpsType(), list);
}

void NalUnitList::GetSpsList(std::vector<std::shared_ptr<std::vector<QZ_BYTE>>>& list) const {
  CopyType(SpsType(), list);
}

void NalUnitList::GetPpsList(std::vector<std::shared_ptr<std::vector<QZ_BYTE>>>& list) const {
  CopyType(PpsType(), list);
}

bool NalUnitList::IsHasVps() const {
  return HasType(VpsType());
}

bool NalUnitList::IsHasSps() const {
  return HasType(SpsType());
}

bool NalUnitList::IsHasPPs() const {
  return HasType(PpsType());
}

}  // namespace qz_h2645
