// Parser of the MPEG-4 Audio AudioSpecificConfig (ISO/IEC 14496-3, 1.6.2.1).
#ifndef TOPCOMMON_QZ_AAC_AUDIO_CONFIG_H_
#define TOPCOMMON_QZ_AAC_AUDIO_CONFIG_H_

#include "topcommon/qz_type_define.h"

namespace qz_top_common {

class AACAudioConfig {
 public:
  // Reads the audio object type, the sampling frequency in Hz and the channel
  // count. For SBR and PS (HE-AAC with explicit signalling) the sampling
  // frequency is the extension (output) frequency and the object type the
  // underlying core type. Returns false, leaving the outputs unspecified, for
  // input it cannot read: fewer than two bytes, a cut-off escape, object type
  // 0, a reserved frequency index, a frequency of 0, or channel configuration
  // 0 (the layout would be in a program config element this parser does not
  // read, so the channel count is unknown). Never reads beyond `size` bytes.
  static bool Parser(const QZ_BYTE* data, int size, int& obj_type, int& sample_rate, int& channels);

  // Samples per channel in one access unit, counted at the sampling
  // frequency Parser() reports: 1024 or 960 for the AAC object types, 512 or
  // 480 for ER AAC LD and ER AAC ELD (as their frameLengthFlag says), twice
  // the core's for SBR/PS whose output runs at twice the core frequency.
  // ELD with low-delay SBR counts core samples, its frequency being the
  // core's. 0 when unknown: Parser() fails, another object type, SBR at a
  // frequency ratio other than 1 or 2, or the config ends before the flag.
  static int FrameLength(const QZ_BYTE* data, int size);
};

}  // namespace qz_top_common

#endif  // TOPCOMMON_QZ_AAC_AUDIO_CONFIG_H_
