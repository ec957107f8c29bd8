#include "topcommon/qz_aac_audio_config.h"

namespace qz_top_common {
namespace {

// samplingFrequencyIndex 0..12; 13 and 14 are reserved, 15 escapes to an
// explicit 24-bit frequency.
constexpr int kSampleRates[13] = {96000, 88200, 64000, 48000, 44100, 32000, 24000,
                                  22050, 16000, 12000, 11025, 8000,  7350};

constexpr int kAotSbr = 5;
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

}  // namespace

bool AACAudioConfig::Parser(const QZ_BYTE* data,
                            int size,
                            int& obj_type,
                            int& sample_rate,
                            int& channels) {
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
  if (aot == kAotSbr || aot == kAotPs) {
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
  obj_type = aot;
  sample_rate = rate;
  channels = channel_config == 7 ? 8 : channel_config;
  return true;
}

}  // namespace qz_top_common
