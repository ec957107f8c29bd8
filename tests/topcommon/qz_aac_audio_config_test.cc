#include "topcommon/qz_aac_audio_config.h"

#include <tuple>
#include <vector>

#include "gtest/gtest.h"

namespace {

using qz_top_common::AACAudioConfig;

struct AscCase {
  const char* name;
  std::vector<QZ_BYTE> bytes;
  bool ok;
  int obj_type, sample_rate, channels;
  int frame_length;  // FrameLength(): 0 when unknown
};

// Bit layouts: aot(5) freq_index(4) channel_config(4), then the first bit of
// GASpecificConfig / ELDSpecificConfig: frameLengthFlag.
const AscCase kCases[] = {
    // 00010 0100 0010 0 00: AAC-LC, 44100, stereo.
    {"lc_44100_stereo", {0x12, 0x10}, true, 2, 44100, 2, 1024},
    // 00010 0011 0001 0 00: AAC-LC, 48000, mono.
    {"lc_48000_mono", {0x11, 0x88}, true, 2, 48000, 1, 1024},
    // 00010 0011 0001 1 00: 960-sample frames.
    {"lc_960", {0x11, 0x8C}, true, 2, 48000, 1, 960},
    // 10111 0011 0001 0 00: ER AAC LD, 512-sample frames.
    {"ld_512", {0xB9, 0x88}, true, 23, 48000, 1, 512},
    // 10111 0100 0010 1 00: ER AAC LD, 480-sample frames.
    {"ld_480", {0xBA, 0x14}, true, 23, 44100, 2, 480},
    // 11111 000111 0011 0001 0 ...: escape to 39, ER AAC ELD, 512-sample frames.
    {"eld_512", {0xF8, 0xE6, 0x20, 0x00}, true, 39, 48000, 1, 512},
    // 11111 000111 0100 0010 1 ...: ELD, 480-sample frames.
    {"eld_480", {0xF8, 0xE8, 0x50, 0x00}, true, 39, 44100, 2, 480},
    // 00010 1111 <24 bits 0x00AC44 = 44100> 0010 0 ...: explicit frequency.
    {"explicit_frequency", {0x17, 0x80, 0x56, 0x22, 0x10}, true, 2, 44100, 2, 1024},
    // 11111 000111 1111 <24 bits 0x00BB80 = 48000> 0001 1 ...: escape and
    // explicit frequency in one, ELD with 480-sample frames.
    {"eld_explicit_frequency", {0xF8, 0xFE, 0x01, 0x77, 0x00, 0x30, 0x00}, true, 39, 48000, 1, 480},
    // 00101 0110 0010 0011 00010 0 ...: HE-AAC (SBR) 24000 core, 48000
    // output, stereo; 1024 core samples are 2048 at the output frequency.
    {"sbr_explicit", {0x2B, 0x11, 0x88, 0x00}, true, 2, 48000, 2, 2048},
    // 11111 000000 ...: escape to type 32 (layer 1), 44100 stereo; not AAC.
    {"escape_31", {0xF8, 0x08, 0x40}, true, 32, 44100, 2, 0},
    // 00010 0100 0111: channel configuration 7 is 7.1.
    {"seven_one", {0x12, 0x38}, true, 2, 44100, 8, 1024},
    {"empty", {}, false, 0, 0, 0, 0},
    {"one_byte", {0x12}, false, 0, 0, 0, 0},
    // The ELD config above cut after two bytes, inside its channel configuration.
    {"cut_eld", {0xF8, 0xE8}, false, 0, 0, 0, 0},
    // 00000 ...: object type 0 is invalid.
    {"object_type_0", {0x02, 0x10}, false, 0, 0, 0, 0},
    // 00010 1101: frequency index 13 is reserved.
    {"reserved_index", {0x16, 0x90}, false, 0, 0, 0, 0},
    // 00010 1111 then only 11 bits of the 24-bit frequency.
    {"cut_explicit_frequency", {0x17, 0x80}, false, 0, 0, 0, 0},
    // 00010 1111 frequency 0.
    {"explicit_zero_frequency", {0x17, 0x80, 0x00, 0x00, 0x10}, false, 0, 0, 0, 0},
    // 00010 0100 0000: channel configuration 0 (program config element).
    {"channel_config_0", {0x12, 0x00}, false, 0, 0, 0, 0},
    // 11111 then the 6-bit extension is cut off.
    {"cut_escape", {0xF8}, false, 0, 0, 0, 0},
    // SBR whose extension frequency is cut off.
    {"cut_sbr_extension", {0x2B, 0x10}, false, 0, 0, 0, 0},
};

TEST(AacAudioConfigTest, Parses) {
  for (const AscCase& c : kCases) {
    const QZ_BYTE* data = c.bytes.empty() ? nullptr : c.bytes.data();
    const int size = static_cast<int>(c.bytes.size());
    int obj = 0, rate = 0, channels = 0;
    const bool ok = AACAudioConfig::Parser(data, size, obj, rate, channels);
    EXPECT_EQ(AACAudioConfig::FrameLength(data, size), c.frame_length) << c.name;
    EXPECT_EQ(ok, c.ok) << c.name;
    if (ok && c.ok) {
      EXPECT_EQ(std::make_tuple(obj, rate, channels),
                std::make_tuple(c.obj_type, c.sample_rate, c.channels))
          << c.name;
    }
  }
}

}  // namespace
