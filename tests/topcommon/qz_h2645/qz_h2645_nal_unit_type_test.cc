#include "topcommon/qz_h2645/qz_h2645_nal_unit_type.h"

#include <cstring>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "gtest/gtest.h"
#include "tests/fakes/test_support.h"

namespace {

using qz_h2645::FindStartCode;
using qz_h2645::NalUnitList;
using Bytes = std::vector<QZ_BYTE>;

// The definition: the first 00 00 01, a four-byte start code when a zero
// stands right in front of it.
const QZ_BYTE* ReferenceStartCode(const Bytes& b, int& len) {
  for (size_t i = 0; i + 2 < b.size(); ++i) {
    if (b[i] == 0 && b[i + 1] == 0 && b[i + 2] == 1) {
      len = i > 0 && b[i - 1] == 0 ? 4 : 3;
      return b.data() + i + 3 - len;
    }
  }
  len = 0;
  return nullptr;
}

void ExpectStartCodeAsDefined(const Bytes& b) {
  int len = -1, ref_len = -1;
  const QZ_BYTE* ref = ReferenceStartCode(b, ref_len);
  const QZ_BYTE* found = FindStartCode(b.data(), b.data() + b.size(), len);
  ASSERT_EQ(found, ref) << ::testing::PrintToString(b);
  ASSERT_EQ(len, ref_len) << ::testing::PrintToString(b);
}

// Every buffer of up to nine bytes of 00, 01 and 02 holds every boundary case:
// start codes at either end, zero runs, false starts, buffers too short.
TEST(StartCodeTest, FindsTheFirstAsDefinedInEveryShortBuffer) {
  qz_test::ForEachShortBuffer(9, ExpectStartCodeAsDefined);
  int len = -1;
  EXPECT_EQ(FindStartCode(nullptr, nullptr, len), nullptr);
  EXPECT_EQ(len, 0);
}

// Hex bytes, "|" between NAL units: "67 AA | 68 BB" is two units.
std::vector<Bytes> HexUnits(const std::string& text) {
  std::vector<Bytes> out;
  std::istringstream in(text);
  for (std::string t; in >> t;) {
    if (out.empty() || t == "|") {
      out.emplace_back();
    }
    if (t != "|") {
      out.back().push_back(static_cast<QZ_BYTE>(std::stoul(t, nullptr, 16)));
    }
  }
  return out;
}

struct SplitCase {
  const char* name;
  bool is_h264;
  const char* bytes;
  bool ok;
  const char* units;
  bool key;
};

const SplitCase kSplitCases[] = {
    {"h264_idr_with_sets", true, "00 00 00 01 67 AA 00 00 01 68 BB 00 00 00 01 65 CC DD", true,
     "67 AA | 68 BB | 65 CC DD", true},
    {"h264_non_idr", true, "00 00 01 41 9A", true, "41 9A", false},
    {"back_to_back_start_codes", true, "00 00 00 01 00 00 01 41 01", true, "41 01", false},
    {"trailing_zeros_dropped", true, "00 00 01 65 11 00 00 00", true, "65 11", true},
    {"leading_garbage_ignored", true, "33 44 00 00 01 41 22", true, "41 22", false},
    {"one_byte_h264_unit", true, "00 00 01 09", true, "09", false},
    {"h265_irap_cra", false, "00 00 01 2A 01 10", true, "2A 01 10", true},
    {"h265_idr_with_sets", false,
     "00 00 00 01 40 01 0C 00 00 00 01 42 01 01 00 00 01 44 01 00 00 01 26 01 AF", true,
     "40 01 0C | 42 01 01 | 44 01 | 26 01 AF", true},
    {"h265_trail", false, "00 00 01 02 01 D0", true, "02 01 D0", false},
    {"h265_header_cut", false, "00 00 01 26", false, "", false},
    {"forbidden_bit", true, "00 00 01 E5 11", false, "", false},
    {"no_start_code", true, "65 11 22 33", false, "", false},
    {"lone_start_code", true, "00 00 00 01", false, "", false},
    {"start_code_at_end", true, "11 22 00 00 01", false, "", false},
    {"empty", true, "", false, "", false},
};

class NalUnitListTest : public ::testing::TestWithParam<SplitCase> {};

TEST_P(NalUnitListTest, Splits) {
  const SplitCase& c = GetParam();
  const std::vector<Bytes> input = HexUnits(c.bytes), units = HexUnits(c.units);
  const Bytes bytes = input.empty() ? Bytes() : input[0];
  NalUnitList list;
  const bool ok = list.PaserNalUnits(bytes.empty() ? nullptr : bytes.data(),
                                     static_cast<QZ_UINT32>(bytes.size()), c.is_h264);
  ASSERT_EQ(ok, c.ok);
  ASSERT_EQ(list.GetList().size(), units.size());
  for (size_t i = 0; i < units.size(); ++i) {
    const auto& item = list.GetList()[i];
    EXPECT_FALSE(item.IsEmpty());
    EXPECT_EQ(Bytes(item.Data(), item.Data() + item.Size()), units[i]) << "unit " << i;
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
  const auto check = [](bool is_h264, const Bytes& au, size_t vps_count, size_t sps_count,
                        size_t pps_count, const Bytes& last_sps) {
    SCOPED_TRACE(is_h264 ? "H.264" : "H.265");
    NalUnitList list;
    ASSERT_TRUE(list.PaserNalUnits(au.data(), static_cast<QZ_UINT32>(au.size()), is_h264));
    std::vector<std::shared_ptr<std::vector<QZ_BYTE>>> vps, sps, pps;
    list.GetVpsList(vps);
    list.GetSpsList(sps);
    list.GetPpsList(pps);
    EXPECT_EQ(vps.size(), vps_count);
    EXPECT_EQ(pps.size(), pps_count);
    ASSERT_EQ(sps.size(), sps_count);
    EXPECT_EQ(*sps.back(), last_sps);
    EXPECT_EQ(list.IsHasVps(), vps_count > 0);
    EXPECT_EQ(list.IsHasSps(), sps_count > 0);
    EXPECT_EQ(list.IsHasPPs(), pps_count > 0);
  };
  const Bytes sps1 = {0x42, 0x01, 0x77}, sps2 = {0x42, 0x01, 0x78};
  check(false, qz_test::AnnexB({{0x40, 0x01, 0x0C}, sps1, sps2, {0x26, 0x01, 0xAF}}), 1, 2, 0,
        sps2);
  check(true, qz_test::AnnexB({{0x67, 0x42}, {0x68, 0xCE}, {0x65, 0x88}}), 0, 1, 1, {0x67, 0x42});
}

// On long random buffers with planted start codes the scanner finds what the
// definition says, and the splitter never yields a unit outside the buffer.
TEST(NalUnitListTest, AgreesWithReferenceOnRandomData) {
  std::mt19937 rng(1234);
  for (int round = 0; round < 300; ++round) {
    Bytes buf(1 + rng() % 300);
    for (auto& b : buf) {
      const unsigned r = rng() % 8;
      b = r < 3 ? 0 : (r == 3 ? 1 : static_cast<QZ_BYTE>(rng()));
    }
    ExpectStartCodeAsDefined(buf);
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
