// Writer of H.264 SEI NAL units carrying this library's user data as
// user_data_unregistered messages (ITU-T H.264 D.1.6, payloadType 5).
//
// The message payload is a 16-byte UUID followed by the user's bytes. The
// UUID tells a receiving application how to read them:
//   binary data: 7f3e9b41-0eb6-4fa3-9a77-8d03ea67c8fb
//   UTF-8 text:  0d54c06f-c598-4f3f-bfaf-861ea1de01ea  (no terminating zero)
#ifndef TOPCOMMON_QZ_H264_SEI_H_
#define TOPCOMMON_QZ_H264_SEI_H_

#include <string>
#include <vector>

#include "topcommon/qz_type_define.h"

namespace qz_top_common {

class H264Sei {
 public:
  static const QZ_BYTE kBinaryUuid[16];
  static const QZ_BYTE kTextUuid[16];

  // Appends one sei_message (payload type, payload size, UUID, data) to
  // `sei_message`, the RBSP being built. False, with nothing appended, for a
  // null `data` with a positive size or a negative size.
  bool WriteQZSDKSeiMessage(std::vector<unsigned char>& sei_message,
                            const QZ_BYTE* data,
                            QZ_INT32 size);
  bool WriteQZSDKSeiMessage(std::vector<unsigned char>& sei_message, const std::string& text);

  // Appends rbsp_trailing_bits: the stop bit and alignment zeros (0x80).
  void WriteRbspTrailingBits(std::vector<unsigned char>& rbsp);

  // Writes an SEI NAL unit (header byte 0x06) made from `rbsp` into
  // `nal_unit`, replacing its content. By default (all flags false) a
  // four-byte start code 00 00 00 01 comes first and emulation prevention is
  // applied (00 00 0x becomes 00 00 03 0x for x <= 3).
  //   without_start_code: no start code at all;
  //   short_start_code: the three-byte form 00 00 01;
  //   without_emulation_prevention: the RBSP is copied as it is.
  void WriteSeiNalUnit(std::vector<unsigned char>& nal_unit,
                       const QZ_BYTE* rbsp,
                       QZ_INT32 size,
                       bool without_start_code,
                       bool short_start_code,
                       bool without_emulation_prevention);

 private:
  static bool WriteUserDataUnregistered(std::vector<unsigned char>& sei_message,
                                        const QZ_BYTE uuid[16],
                                        const QZ_BYTE* data,
                                        size_t size);
};

}  // namespace qz_top_common

#endif  // TOPCOMMON_QZ_H264_SEI_H_
