#include "topcommon/qz_aac_audio_config.h"

namespace qz_top_common {
namespace {

// samplingFrequencyIndex 0..12; 13 and 14 are reserved, 15 escapes to an
// explicit 24-bit frequency.
constexpr int kSampleRates[13] = {96000, 88200, 64000, 48000, 44100, 32000, 24000,
                                  22050, 16000, 12000, 11025, 8000,  7350};

constexpr int kAotSbr = 5;
constexpr int kAotBsac = 22;
constexpr int kAotPs = 29;
constexpr int kAotEscape = 31;

class BitReader {
 public:
  BitReader(const QZ_BYTE* data, int size) : data_(data), bits_left_(size * 8) {}

  // False when fewer than `count` bits remain.
  bool Read(int count, int& value) {
    if (count > bits_left_) {
      return false;
    }
    value = 0;
    for (int i = 0; i < count; ++i) {
      const int bit = (data_[pos_ >> 3] >> (7 - (pos_ & 7))) & 1;
      value = (value << 1) | bit;
      ++pos_;
    }
    bits_left_ -= count;
    return true;
  }

 private:
  const QZ_BYTE* data_;
  int bits_left_;
  int pos_ = 0;
};

bool ReadObjectType(BitReader& reader, int& obj_type) {
  if (!reader.Read(5, obj_type)) {
    return false;
  }
  if (obj_type == kAotEscape) {
    int ext = 0;
    if (!reader.Read(6, ext)) {
      return false;
    }
    obj_type = 32 + ext;
  }
  return obj_type != 0;
}

bool ReadSampleRate(BitReader& reader, int& sample_rate) {
  int index = 0;
  if (!reader.Read(4, index)) {
    return false;
  }
  if (index == 0xF) {
    if (!reader.Read(24, sample_rate)) {
      return false;
    }
  } else if (index < 13) {
    sample_rate = kSampleRates[index];
  } else {
    return false;
  }
  return sample_rate > 0;
}

// Samples per frame of the object types whose GASpecificConfig or
// ELDSpecificConfig opens with frameLengthFlag (`short_frames`); 0 for the
// others, TwinVQ among them (its frame length follows other rules).
int CoreFrameLength(int obj_type, bool short_frames) {
  switch (obj_type) {
    case 1:   // AAC Main
    case 2:   // AAC LC
    case 4:   // AAC LTP
    case 6:   // AAC Scalable
    case 17:  // ER AAC LC
    case 19:  // ER AAC LTP
    case 20:  // ER AAC Scalable
    case 22:  // ER BSAC
      return short_frames ? 960 : 1024;
    case 3:  // AAC SSR has 1024-sample frames only
      return short_frames ? 0 : 1024;
    case 23:  // ER AAC LD
    case 39:  // ER AAC ELD
      return short_frames ? 480 : 512;
    default:
      return 0;
  }
}

struct ParsedConfig {
  int obj_type = 0;
  int sample_rate = 0;
  int channels = 0;
  int frame_length = 0;  // 0: unknown
};

bool Parse(const QZ_BYTE* data, int size, ParsedConfig& out) {
  if (data == nullptr || size < 2) {
    return false;
  }
  BitReader reader(data, size);
  int aot = 0;
  int rate = 0;
  int channel_config = 0;
  if (!ReadObjectType(reader, aot) || !ReadSampleRate(reader, rate) ||
      !reader.Read(4, channel_config)) {
    return false;
  }
  const int core_rate = rate;
  const bool sbr = aot == kAotSbr || aot == kAotPs;
  if (sbr) {
    int ext_rate = 0;
    int core_aot = 0;
    if (!ReadSampleRate(reader, ext_rate) || !ReadObjectType(reader, core_aot)) {
      return false;
    }
    rate = ext_rate;
    aot = core_aot;
  }
  // 1..6 are that many channels, 7 is 7.1 (8 channels); 0 and 8..15 are
  // either defined by a program config element or reserved.
  if (channel_config < 1 || channel_config > 7) {
    return false;
  }
  out.obj_type = aot;
  out.sample_rate = rate;
  out.channels = channel_config == 7 ? 8 : channel_config;
  out.frame_length = 0;
  // BSAC under SBR carries an extension channel configuration before its
  // GASpecificConfig.
  int skipped = 0;
  int short_frames = 0;
  if ((sbr && aot == kAotBsac && !reader.Read(4, skipped)) || !reader.Read(1, short_frames)) {
    return true;  // the frame length flag is cut off: length unknown
  }
  const int core_length = CoreFrameLength(aot, short_frames != 0);
  if (!sbr || rate == core_rate) {
    out.frame_length = core_length;  // no SBR, or SBR that keeps the core frequency
  } else if (rate == 2 * core_rate) {
    out.frame_length = 2 * core_length;
  }
  return true;
}

}  // namespace

bool AACAudioConfig::Parser(const QZ_BYTE* data,
                            int size,
                            int& obj_type,
                            int& sample_rate,
                            int& channels) {
  ParsedConfig config;
  if (!Parse(data, size, config)) {
    return false;
  }
  obj_type = config.obj_type;
  sample_rate = config.sample_rate;
  channels = config.channels;
  return true;
}

int AACAudioConfig::FrameLength(const QZ_BYTE* data, int size) {
  ParsedConfig config;
  return Parse(data, size, config) ? config.frame_length : 0;
}

}  // namespace qz_top_common
