#include "topcommon/qz_aac_audio_config.h"

#include <vector>

#include "gtest/gtest.h"

namespace {

using qz_top_common::AACAudioConfig;

struct AscCase {
  const char* name;
  std::vector<QZ_BYTE> bytes;
  bool ok;
  int obj_type, sample_rate, channels;
};

// Bit layouts: aot(5) freq_index(4) channel_config(4) ...
const AscCase kCases[] = {
    // 00010 0100 0010 000: AAC-LC, 44100, stereo.
    {"lc_44100_stereo", {0x12, 0x10}, true, 2, 44100, 2},
    // 00010 0011 0001 000: AAC-LC, 48000, mono.
    {"lc_48000_mono", {0x11, 0x88}, true, 2, 48000, 1},
    // 00010 1011 0001 000: AAC-LC, 8000, mono.
    {"lc_8000_mono", {0x15, 0x88}, true, 2, 8000, 1},
    // 00010 1111 <24 bits 0x00AC44 = 44100> 0010 ...: explicit frequency.
    {"explicit_frequency", {0x17, 0x80, 0x56, 0x22, 0x10}, true, 2, 44100, 2},
    // 00101 0110 0010 0011 00010 000: HE-AAC (SBR) 24000 core, 48000 output, stereo.
    {"sbr_explicit", {0x2B, 0x11, 0x88, 0x00}, true, 2, 48000, 2},
    // 11111 000000 ...: escape to type 32 (layer 1), 44100 stereo.
    {"escape_31", {0xF8, 0x08, 0x40}, true, 32, 44100, 2},
    // 00010 0100 0111: channel configuration 7 is 7.1.
    {"seven_one", {0x12, 0x38}, true, 2, 44100, 8},
    {"empty", {}, false, 0, 0, 0},
    {"one_byte", {0x12}, false, 0, 0, 0},
    // 00000 ...: object type 0 is invalid.
    {"object_type_0", {0x02, 0x10}, false, 0, 0, 0},
    // 00010 1101: frequency index 13 is reserved.
    {"reserved_index", {0x16, 0x90}, false, 0, 0, 0},
    // 00010 1111 then only 11 bits of the 24-bit frequency.
    {"cut_explicit_frequency", {0x17, 0x80}, false, 0, 0, 0},
    // 00010 1111 frequency 0.
    {"explicit_zero_frequency", {0x17, 0x80, 0x00, 0x00, 0x10}, false, 0, 0, 0},
    // 00010 0100 0000: channel configuration 0 (program config element).
    {"channel_config_0", {0x12, 0x00}, false, 0, 0, 0},
    // 11111 then the 6-bit extension is cut off.
    {"cut_escape", {0xF8}, false, 0, 0, 0},
    // SBR whose extension frequency is cut off.
    {"cut_sbr_extension", {0x2B, 0x10}, false, 0, 0, 0},
};

class AacAudioConfigTest : public ::testing::TestWithParam<AscCase> {};

TEST_P(AacAudioConfigTest, Parses) {
  const AscCase& c = GetParam();
  int obj = 0, rate = 0, channels = 0;
  const bool ok = AACAudioConfig::Parser(c.bytes.empty() ? nullptr : c.bytes.data(),
                                         static_cast<int>(c.bytes.size()), obj, rate, channels);
  ASSERT_EQ(ok, c.ok);
  if (c.ok) {
    EXPECT_EQ(obj, c.obj_type);
    EXPECT_EQ(rate, c.sample_rate);
    EXPECT_EQ(channels, c.channels);
  }
}

INSTANTIATE_TEST_SUITE_P(Table,
                         AacAudioConfigTest,
                         ::testing::ValuesIn(kCases),
                         [](const ::testing::TestParamInfo<AscCase>& info) {
                           return std::string(info.param.name);
                         });

}  // namespace
