#include "topcommon/qz_h2645/qz_h2645_nal_unit_type.h"

#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "gtest/gtest.h"

namespace {

using qz_h2645::FindStartCode;
using qz_h2645::NalUnitList;
using Bytes = std::vector<QZ_BYTE>;

struct StartCodeCase {
  const char* name;
  Bytes bytes;
  int offset;  // -1: none
  int len;
};

const StartCodeCase kStartCodeCases[] = {
    {"three_byte", {0, 0, 1, 0x65}, 0, 3},
    {"four_byte", {0, 0, 0, 1, 0x67}, 0, 4},
    {"extra_zero_before_four_byte", {0, 0, 0, 0, 1, 0x67}, 1, 4},
    {"after_data", {0x12, 0, 0, 1, 0x41}, 1, 3},
    {"after_false_start", {0, 0, 2, 0, 0, 1, 9}, 3, 3},
    {"single_zero_then_start", {0, 1, 0, 0, 1}, 2, 3},
    {"at_very_end", {0x55, 0x66, 0, 0, 1}, 2, 3},
    {"zeros_only", {0, 0, 0}, -1, 0},
    {"two_bytes", {0, 0}, -1, 0},
    {"no_start_code", {1, 2, 3, 0, 0, 2, 0, 1}, -1, 0},
    {"ones_everywhere", {1, 1, 1, 0, 1, 0, 0, 1}, 5, 3},
};

class StartCodeTest : public ::testing::TestWithParam<StartCodeCase> {};

TEST_P(StartCodeTest, Finds) {
  const StartCodeCase& c = GetParam();
  int len = -1;
  const QZ_BYTE* found = FindStartCode(c.bytes.data(), c.bytes.data() + c.bytes.size(), len);
  if (c.offset < 0) {
    EXPECT_EQ(found, nullptr);
  } else {
    ASSERT_NE(found, nullptr);
    EXPECT_EQ(found - c.bytes.data(), c.offset);
  }
  EXPECT_EQ(len, c.len);
}

INSTANTIATE_TEST_SUITE_P(Table,
                         StartCodeTest,
                         ::testing::ValuesIn(kStartCodeCases),
                         [](const ::testing::TestParamInfo<StartCodeCase>& info) {
                           return std::string(info.param.name);
                         });

struct SplitCase {
  const char* name;
  bool is_h264;
  Bytes bytes;
  bool ok;
  std::vector<Bytes> units;
  bool key;
};

const SplitCase kSplitCases[] = {
    {"h264_idr_with_sets",
     true,
     {0, 0, 0, 1, 0x67, 0xAA, 0, 0, 1, 0x68, 0xBB, 0, 0, 0, 1, 0x65, 0xCC, 0xDD},
     true,
     {{0x67, 0xAA}, {0x68, 0xBB}, {0x65, 0xCC, 0xDD}},
     true},
    {"h264_non_idr", true, {0, 0, 1, 0x41, 0x9A}, true, {{0x41, 0x9A}}, false},
    {"back_to_back_start_codes",
     true,
     {0, 0, 0, 1, 0, 0, 1, 0x41, 0x01},
     true,
     {{0x41, 0x01}},
     false},
    {"trailing_zeros_dropped", true, {0, 0, 1, 0x65, 0x11, 0, 0, 0}, true, {{0x65, 0x11}}, true},
    {"leading_garbage_ignored",
     true,
     {0x33, 0x44, 0, 0, 1, 0x41, 0x22},
     true,
     {{0x41, 0x22}},
     false},
    {"one_byte_h264_unit", true, {0, 0, 1, 0x09}, true, {{0x09}}, false},
    {"h265_irap_cra", false, {0, 0, 1, 0x2A, 0x01, 0x10}, true, {{0x2A, 0x01, 0x10}}, true},
    {"h265_idr_with_sets",
     false,
     {0,    0, 0, 1, 0x40, 0x01, 0x0C, 0, 0, 0,    1,    0x42, 0x01,
      0x01, 0, 0, 1, 0x44, 0x01, 0,    0, 1, 0x26, 0x01, 0xAF},
     true,
     {{0x40, 0x01, 0x0C}, {0x42, 0x01, 0x01}, {0x44, 0x01}, {0x26, 0x01, 0xAF}},
     true},
    {"h265_trail", false, {0, 0, 1, 0x02, 0x01, 0xD0}, true, {{0x02, 0x01, 0xD0}}, false},
    {"h265_header_cut", false, {0, 0, 1, 0x26}, false, {}, false},
    {"forbidden_bit", true, {0, 0, 1, 0xE5, 0x11}, false, {}, false},
    {"no_start_code", true, {0x65, 0x11, 0x22, 0x33}, false, {}, false},
    {"lone_start_code", true, {0, 0, 0, 1}, false, {}, false},
    {"start_code_at_end", true, {0x11, 0x22, 0, 0, 1}, false, {}, false},
    {"empty", true, {}, false, {}, false},
};

class NalUnitListTest : public ::testing::TestWithParam<SplitCase> {};

TEST_P(NalUnitListTest, Splits) {
  const SplitCase& c = GetParam();
  NalUnitList list;
  const bool ok = list.PaserNalUnits(c.bytes.empty() ? nullptr : c.bytes.data(),
                                     static_cast<QZ_UINT32>(c.bytes.size()), c.is_h264);
  ASSERT_EQ(ok, c.ok);
  ASSERT_EQ(list.GetList().size(), c.units.size());
  for (size_t i = 0; i < c.units.size(); ++i) {
    const auto& item = list.GetList()[i];
    EXPECT_FALSE(item.IsEmpty());
    EXPECT_EQ(Bytes(item.Data(), item.Data() + item.Size()), c.units[i]) << "unit " << i;
    EXPECT_EQ(item.IsH264(), c.is_h264);
  }
  EXPECT_EQ(list.IsKeyFrame(), c.key);
}

INSTANTIATE_TEST_SUITE_P(Table,
                         NalUnitListTest,
                         ::testing::ValuesIn(kSplitCases),
                         [](const ::testing::TestParamInfo<SplitCase>& info) {
                           return std::string(info.param.name);
                         });

TEST(NalUnitListTest, ParameterSetListsAgreeWithPredicates) {
  const Bytes au = {0, 0, 1, 0x40, 0x01, 0x0C, 0, 0, 1, 0x42, 0x01, 0x77,
                    0, 0, 1, 0x42, 0x01, 0x78, 0, 0, 1, 0x26, 0x01, 0xAF};
  NalUnitList list;
  ASSERT_TRUE(list.PaserNalUnits(au.data(), static_cast<QZ_UINT32>(au.size()), false));
  std::vector<std::shared_ptr<std::vector<QZ_BYTE>>> vps, sps, pps;
  list.GetVpsList(vps);
  list.GetSpsList(sps);
  list.GetPpsList(pps);
  EXPECT_TRUE(list.IsHasVps());
  EXPECT_TRUE(list.IsHasSps());
  EXPECT_FALSE(list.IsHasPPs());
  ASSERT_EQ(vps.size(), 1u);
  ASSERT_EQ(sps.size(), 2u);
  EXPECT_TRUE(pps.empty());
  EXPECT_EQ(*sps[1], Bytes({0x42, 0x01, 0x78}));
}

TEST(NalUnitListTest, H264HasNoVps) {
  const Bytes au = {0, 0, 1, 0x67, 0x42, 0, 0, 1, 0x68, 0xCE, 0, 0, 1, 0x65, 0x88};
  NalUnitList list;
  ASSERT_TRUE(list.PaserNalUnits(au.data(), static_cast<QZ_UINT32>(au.size()), true));
  EXPECT_FALSE(list.IsHasVps());
  EXPECT_TRUE(list.IsHasSps());
  EXPECT_TRUE(list.IsHasPPs());
}

// The scanner and a byte-by-byte reference agree on random data with planted
// start codes, and the splitter never yields a unit outside the buffer.
TEST(NalUnitListTest, AgreesWithReferenceOnRandomData) {
  std::mt19937 rng(1234);
  for (int round = 0; round < 300; ++round) {
    Bytes buf(1 + rng() % 300);
    for (auto& b : buf) {
      const unsigned r = rng() % 8;
      b = r < 3 ? 0 : (r == 3 ? 1 : static_cast<QZ_BYTE>(rng()));
    }
    int len = 0;
    const QZ_BYTE* found = FindStartCode(buf.data(), buf.data() + buf.size(), len);
    const QZ_BYTE* ref = nullptr;
    for (size_t i = 0; i + 2 < buf.size(); ++i) {
      if (buf[i] == 0 && buf[i + 1] == 0 && buf[i + 2] == 1) {
        ref = buf.data() + i;
        if (i > 0 && buf[i - 1] == 0) {
          --ref;
        }
        break;
      }
    }
    ASSERT_EQ(found, ref) << "round " << round;
    NalUnitList list;
    list.PaserNalUnits(buf.data(), static_cast<QZ_UINT32>(buf.size()), round % 2 == 0);
    for (const auto& item : list.GetList()) {
      ASSERT_GE(item.Data(), buf.data());
      ASSERT_LE(item.Data() + item.Size(), buf.data() + buf.size());
      ASSERT_FALSE(item.IsEmpty());
    }
  }
}

}  // namespace
