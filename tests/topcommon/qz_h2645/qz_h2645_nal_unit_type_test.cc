#include "topcommon/qz_h2645/qz_h2645_nal_unit_type.h"

#include <cstring>
#include <random>
#include <sstream>
#include <string>
#include <tuple>
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
  size_t vps, sps, pps;  // parameter sets, the leading units in this order
};

const SplitCase kSplitCases[] = {
    {"h264_idr_with_sets", true, "00 00 00 01 67 AA 00 00 01 68 BB 00 00 00 01 65 CC DD", true,
     "67 AA | 68 BB | 65 CC DD", true, 0, 1, 1},
    {"h264_non_idr", true, "00 00 01 41 9A", true, "41 9A", false, 0, 0, 0},
    {"back_to_back_start_codes", true, "00 00 00 01 00 00 01 41 01", true, "41 01", false, 0, 0, 0},
    {"trailing_zeros_dropped", true, "00 00 01 65 11 00 00 00", true, "65 11", true, 0, 0, 0},
    {"leading_garbage_ignored", true, "33 44 00 00 01 41 22", true, "41 22", false, 0, 0, 0},
    {"one_byte_h264_unit", true, "00 00 01 09", true, "09", false, 0, 0, 0},
    {"h265_irap_cra", false, "00 00 01 2A 01 10", true, "2A 01 10", true, 0, 0, 0},
    {"h265_idr_with_sets", false,
     "00 00 00 01 40 01 0C 00 00 00 01 42 01 01 00 00 01 44 01 00 00 01 26 01 AF", true,
     "40 01 0C | 42 01 01 | 44 01 | 26 01 AF", true, 1, 1, 1},
    {"h265_two_sps", false, "00 00 01 40 01 0C 00 00 01 42 01 77 00 00 01 42 01 78 00 00 01 26 01",
     true, "40 01 0C | 42 01 77 | 42 01 78 | 26 01", true, 1, 2, 0},
    {"h265_trail", false, "00 00 01 02 01 D0", true, "02 01 D0", false, 0, 0, 0},
    {"h265_header_cut", false, "00 00 01 26", false, "", false, 0, 0, 0},
    {"forbidden_bit", true, "00 00 01 E5 11", false, "", false, 0, 0, 0},
    {"no_start_code", true, "65 11 22 33", false, "", false, 0, 0, 0},
    {"lone_start_code", true, "00 00 00 01", false, "", false, 0, 0, 0},
    {"start_code_at_end", true, "11 22 00 00 01", false, "", false, 0, 0, 0},
    {"empty", true, "", false, "", false, 0, 0, 0},
};

// Splits into units, tells a key frame, and lists the parameter sets.
TEST(NalUnitListTest, Splits) {
  for (const SplitCase& c : kSplitCases) {
    SCOPED_TRACE(c.name);
    const std::vector<Bytes> input = HexUnits(c.bytes), units = HexUnits(c.units);
    const Bytes bytes = input.empty() ? Bytes() : input[0];
    NalUnitList list;
    const bool ok = list.PaserNalUnits(bytes.empty() ? nullptr : bytes.data(),
                                       static_cast<QZ_UINT32>(bytes.size()), c.is_h264);
    ASSERT_EQ(ok, c.ok);
    ASSERT_EQ(list.GetList().size(), units.size());
    for (size_t i = 0; i < units.size(); ++i) {
      const auto& item = list.GetList()[i];
      EXPECT_EQ(Bytes(item.Data(), item.Data() + item.Size()), units[i]) << "unit " << i;
      EXPECT_EQ(item.IsH264(), c.is_h264);
    }
    EXPECT_EQ(list.IsKeyFrame(), c.key);
    std::vector<std::shared_ptr<std::vector<QZ_BYTE>>> vps, sps, pps;
    list.GetVpsList(vps);
    list.GetSpsList(sps);
    list.GetPpsList(pps);
    EXPECT_EQ(std::make_tuple(vps.size(), sps.size(), pps.size()),
              std::make_tuple(c.vps, c.sps, c.pps));
    EXPECT_EQ(std::make_tuple(list.IsHasVps(), list.IsHasSps(), list.IsHasPPs()),
              std::make_tuple(c.vps > 0, c.sps > 0, c.pps > 0));
    vps.insert(vps.end(), sps.begin(), sps.end());
    vps.insert(vps.end(), pps.begin(), pps.end());
    for (size_t i = 0; i < vps.size() && i < units.size(); ++i) {
      EXPECT_EQ(*vps[i], units[i]) << "set " << i;
    }
  }
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
