#include "topcommon/qz_h264_sei.h"

#include <string>
#include <vector>

#include "gtest/gtest.h"

namespace {

using qz_top_common::H264Sei;
using Bytes = std::vector<unsigned char>;

// Removes emulation prevention bytes: 00 00 03 -> 00 00.
Bytes Unescape(const Bytes& in) {
  Bytes out;
  int zeros = 0;
  for (unsigned char b : in) {
    if (zeros >= 2 && b == 0x03) {
      zeros = 0;
      continue;
    }
    out.push_back(b);
    zeros = b == 0 ? zeros + 1 : 0;
  }
  return out;
}

// A binary and a text message, each under its own UUID, as complete NAL
// units behind a four-byte, a three-byte or no start code; nothing from bad
// arguments.
TEST(H264SeiTest, GoldenBytes) {
  const Bytes data = {0xAB, 0xCD};
  for (bool text : {false, true}) {
    H264Sei sei;
    Bytes message;
    ASSERT_TRUE(text ? sei.WriteQZSDKSeiMessage(message, std::string(data.begin(), data.end()))
                     : sei.WriteQZSDKSeiMessage(message, data.data(), 2));
    sei.WriteRbspTrailingBits(message);
    Bytes unit = {0x06,  // forbidden 0 | nal_ref_idc 00 | type 00110 (SEI)
                  0x05,  // payloadType 5: user_data_unregistered
                  18};   // payloadSize: 16-byte UUID + 2 bytes
    const QZ_BYTE* uuid = text ? H264Sei::kTextUuid : H264Sei::kBinaryUuid;
    unit.insert(unit.end(), uuid, uuid + 16);
    unit.insert(unit.end(), {0xAB, 0xCD, 0x80});  // data, rbsp_stop_one_bit + alignment
    const std::pair<Bytes, bool> starts[] = {{{0, 0, 0, 1}, false}, {{0, 0, 1}, true}, {{}, false}};
    for (const auto& start : starts) {
      Bytes nal;
      sei.WriteSeiNalUnit(nal, message.data(), static_cast<QZ_INT32>(message.size()),
                          start.first.empty(), start.second, false);
      Bytes expected = start.first;
      expected.insert(expected.end(), unit.begin(), unit.end());
      EXPECT_EQ(nal, expected) << (text ? "text" : "binary") << ", start code of "
                               << start.first.size();
    }
  }
  EXPECT_NE(Bytes(H264Sei::kTextUuid, H264Sei::kTextUuid + 16),
            Bytes(H264Sei::kBinaryUuid, H264Sei::kBinaryUuid + 16));
  H264Sei sei;
  Bytes nal = {1}, message;
  sei.WriteSeiNalUnit(nal, nullptr, 3, false, false, false);
  EXPECT_TRUE(nal.empty());
  EXPECT_FALSE(sei.WriteQZSDKSeiMessage(message, nullptr, 4));
  EXPECT_FALSE(sei.WriteQZSDKSeiMessage(message, data.data(), -1));
  EXPECT_TRUE(message.empty());
}

// payloadSize of 255 and more is coded as 0xFF runs plus a last byte.
TEST(H264SeiTest, PayloadSizeCoding) {
  struct Case {
    size_t data_size;
    Bytes size_bytes;
  } cases[] = {
      {0, {16}},
      {238, {254}},
      {239, {0xFF, 0}},  // 16 + 239 = 255
      {240, {0xFF, 1}},
      {494, {0xFF, 0xFF, 0}},           // 510
      {1000, {0xFF, 0xFF, 0xFF, 251}},  // 1016 = 3 * 255 + 251
  };
  for (const Case& c : cases) {
    H264Sei sei;
    Bytes message;
    Bytes data(c.data_size, 0x11);
    ASSERT_TRUE(sei.WriteQZSDKSeiMessage(message, data.data(), static_cast<QZ_INT32>(data.size())));
    ASSERT_GT(message.size(), c.size_bytes.size() + 1);
    EXPECT_EQ(Bytes(message.begin() + 1, message.begin() + 1 + c.size_bytes.size()), c.size_bytes)
        << "data size " << c.data_size;
    EXPECT_EQ(message.size(), 1 + c.size_bytes.size() + 16 + c.data_size);
  }
}

TEST(H264SeiTest, EmulationPreventionRoundTrips) {
  H264Sei sei;
  const Bytes payload = {0x00, 0x00, 0x00, 0x00, 0x00, 0x01, 0x00, 0x00, 0x02,
                         0x00, 0x00, 0x03, 0x00, 0x00, 0x04, 0x00, 0x00};
  Bytes message;
  ASSERT_TRUE(
      sei.WriteQZSDKSeiMessage(message, payload.data(), static_cast<QZ_INT32>(payload.size())));
  sei.WriteRbspTrailingBits(message);
  Bytes nal;
  sei.WriteSeiNalUnit(nal, message.data(), static_cast<QZ_INT32>(message.size()), true, false,
                      false);
  // No 00 00 00, 00 00 01 or 00 00 02 anywhere inside the NAL unit.
  for (size_t i = 2; i < nal.size(); ++i) {
    EXPECT_FALSE(nal[i - 2] == 0 && nal[i - 1] == 0 && nal[i] < 3) << "at " << i;
  }
  Bytes rbsp(nal.begin() + 1, nal.end());
  EXPECT_EQ(Unescape(rbsp), message);
  // 00 00 00 -> 00 00 03 00 at the start of the payload.
  const size_t data_at = 1 + 2 + 16;
  EXPECT_EQ(Bytes(nal.begin() + data_at, nal.begin() + data_at + 4), Bytes({0, 0, 3, 0}));
}

}  // namespace
