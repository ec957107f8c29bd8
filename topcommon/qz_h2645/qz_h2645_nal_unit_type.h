// Splitting H.264 and H.265 Annex-B access units into bare NAL units.
#ifndef TOPCOMMON_QZ_H2645_QZ_H2645_NAL_UNIT_TYPE_H_
#define TOPCOMMON_QZ_H2645_QZ_H2645_NAL_UNIT_TYPE_H_

#include <memory>
#include <vector>

#include "topcommon/qz_type_define.h"

namespace qz_h2645 {

// NAL unit types of ITU-T H.265, table 7-1, that this library looks at.
enum H265NalType {
  kH265BlaWLp = 16,     // first IRAP type
  kH265RsvIrap23 = 23,  // last IRAP type
  kH265Vps = 32,
  kH265Sps = 33,
  kH265Pps = 34,
  kH265Aud = 35,
  kH265PrefixSei = 39,
};

// NAL unit types of ITU-T H.264, table 7-1.
enum H264NalType {
  kH264Slice = 1,
  kH264Idr = 5,
  kH264Sei = 6,
  kH264Sps = 7,
  kH264Pps = 8,
  kH264Aud = 9,
};

// Finds the first Annex-B start code (00 00 01) in [begin, end) and returns a
// pointer to its first byte, extended back to a fourth zero byte when one is
// in front (the 00 00 00 01 form); `start_code_len` becomes 3 or 4. Null and 0
// when there is none. Uses memchr, so it runs at memory speed on slice data.
const QZ_BYTE* FindStartCode(const QZ_BYTE* begin, const QZ_BYTE* end, int& start_code_len);

// A view of one bare NAL unit (header first, no start code) inside the
// buffer it was parsed from; it owns nothing.
class NalUnitItem {
 public:
  NalUnitItem(const QZ_BYTE* data, QZ_UINT32 size, bool is_h264)
      : data_(data), size_(size), is_h264_(is_h264) {}

  bool IsEmpty() const { return data_ == nullptr || size_ == 0; }
  const QZ_BYTE* Data() const { return data_; }
  QZ_UINT32 Size() const { return size_; }
  bool IsH264() const { return is_h264_; }
  // nal_unit_type from the header: 5 bits for H.264, 6 bits for H.265;
  // -1 for an empty item.
  int Type() const;

 private:
  const QZ_BYTE* data_;
  const QZ_UINT32 size_;
  const bool is_h264_;
};

// The NAL units of one access unit. Items point into the parsed buffer, so a
// list must not outlive it.
class NalUnitList {
 public:
  NalUnitList() : is_h264_(true), is_key_frame_(false) {}

  // Splits `size` bytes of Annex-B data at their start codes. Zero bytes in
  // front of a start code (trailing_zero_8bits, or the first byte of a
  // four-byte start code) are not part of the unit before it, and units that
  // are empty after that (back-to-back start codes) are skipped. Bytes before
  // the first start code are ignored. Returns false, with an empty list, when
  // there is no start code, no unit, a unit shorter than its header (one byte
  // for H.264, two for H.265) or a unit whose forbidden_zero_bit is set.
  bool PaserNalUnits(const QZ_BYTE* data, QZ_UINT32 size, bool is_h264);

  // An IDR slice (H.264) or an IRAP picture, types 16 to 23 (H.265).
  bool IsKeyFrame() const { return is_key_frame_; }
  bool IsH264() const { return is_h264_; }

  // Copies of every VPS (H.265 only), SPS or PPS unit, in stream order.
  void GetVpsList(std::vector<std::shared_ptr<std::vector<QZ_BYTE>>>& list) const;
  void GetSpsList(std::vector<std::shared_ptr<std::vector<QZ_BYTE>>>& list) const;
  void GetPpsList(std::vector<std::shared_ptr<std::vector<QZ_BYTE>>>& list) const;
  bool IsHasVps() const;
  bool IsHasSps() const;
  bool IsHasPPs() const;

  const std::vector<NalUnitItem>& GetList() const { return nal_units_; }

 private:
  int VpsType() const { return is_h264_ ? -1 : int{kH265Vps}; }
  int SpsType() const { return is_h264_ ? int{kH264Sps} : int{kH265Sps}; }
  int PpsType() const { return is_h264_ ? int{kH264Pps} : int{kH265Pps}; }
  bool HasType(int type) const;
  void CopyType(int type, std::vector<std::shared_ptr<std::vector<QZ_BYTE>>>& list) const;

  bool is_h264_;
  bool is_key_frame_;
  std::vector<NalUnitItem> nal_units_;
};

}  // namespace qz_h2645

#endif  // TOPCOMMON_QZ_H2645_QZ_H2645_NAL_UNIT_TYPE_H_
