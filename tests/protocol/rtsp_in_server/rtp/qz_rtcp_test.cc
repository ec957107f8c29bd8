// RTCP: the sender report this server writes, read back at the offsets of
// RFC 3550 6.4.1 and 6.5, and the compound packets it reads from clients.
#include "protocol/rtsp_in_server/rtp/qz_rtcp.h"

#include <string>
#include <tuple>
#include <vector>

#include "gtest/gtest.h"

namespace qz_rtsp_internal_server {
namespace {

using Bytes = std::vector<uint8_t>;
using Words = std::vector<uint32_t>;

// One RTCP packet: first octet (V|P|count), type, then the 32-bit words that
// follow the header and any further bytes; the length field counts them in
// words.
Bytes Packet(uint8_t first, uint8_t type, const Words& words, const Bytes& tail = {}) {
  const size_t length = words.size() + tail.size() / 4;
  Bytes b = {first, type, static_cast<uint8_t>(length >> 8), static_cast<uint8_t>(length)};
  for (uint32_t w : words) {
    b.insert(b.end(), {static_cast<uint8_t>(w >> 24), static_cast<uint8_t>(w >> 16),
                       static_cast<uint8_t>(w >> 8), static_cast<uint8_t>(w)});
  }
  b.insert(b.end(), tail.begin(), tail.end());
  return b;
}

Bytes Cat(std::initializer_list<Bytes> parts) {
  Bytes out;
  for (const auto& p : parts) {
    out.insert(out.end(), p.begin(), p.end());
  }
  return out;
}

// Report block fields in wire order; `lost` is the raw 24-bit field. Every
// block has jitter 77 and DLSR 0x10000.
Words Block(uint32_t ssrc, uint32_t fraction, uint32_t lost, uint32_t seq, uint32_t lsr) {
  return {ssrc, (fraction << 24) | lost, seq, 77, lsr, 0x10000};
}

const Words kSenderInfo = {0xE0000000, 0x80000000, 1234, 10, 2000};

// An RR (201) or SR (200, with kSenderInfo) from 0xAAAA holding `blocks`;
// its count field claims `extra` blocks more than it holds.
Bytes Report(uint8_t type, std::initializer_list<Words> blocks, uint8_t extra = 0) {
  Words words = {0xAAAA};
  if (type == 200) {
    words.insert(words.end(), kSenderInfo.begin(), kSenderInfo.end());
  }
  for (const Words& block : blocks) {
    words.insert(words.end(), block.begin(), block.end());
  }
  return Packet(static_cast<uint8_t>(0x80 + blocks.size() + extra), type, words);
}

using BlockView = std::tuple<uint32_t, int, int32_t, uint32_t, uint32_t, uint32_t, uint32_t>;

// A parsed block as Block() wrote it, with `lost` as the signed count.
BlockView Seen(uint32_t ssrc, int fraction, int32_t lost, uint32_t seq, uint32_t lsr) {
  return {ssrc, fraction, lost, seq, 77, lsr, 0x10000};
}

TEST(RtcpParseTest, CompoundPackets) {
  const Bytes sdes = Packet(0x81, 202, {0xAAAA, 0x01027177, 0});  // CNAME "qw"
  struct Case {
    const char* name;
    Bytes bytes;
    std::vector<BlockView> blocks;
    bool bye = false;
    Words bye_ssrcs = {};
  };
  const Case cases[] = {
      {"rr_one_block_negative_loss",
       Report(201, {Block(0x1111, 0x40, 0xFFFFFD, 0x10005, 0xB7052000)}),
       {Seen(0x1111, 0x40, -3, 0x10005, 0xB7052000)}},
      {"rr_two_blocks",
       Report(201, {Block(0x1111, 0, 0x7FFFFF, 9, 0), Block(0x2222, 0xFF, 5, 8, 3)}),
       {Seen(0x1111, 0, 0x7FFFFF, 9, 0), Seen(0x2222, 0xFF, 5, 8, 3)}},
      {"sr_then_rr",
       Cat({Report(200, {Block(0x1111, 1, 2, 3, 4)}), Report(201, {Block(0x2222, 5, 6, 7, 8)})}),
       {Seen(0x1111, 1, 2, 3, 4), Seen(0x2222, 5, 6, 7, 8)}},
      {"rr_without_blocks_sdes_bye",
       Cat({Report(201, {}), sdes, Packet(0x81, 203, {0xAAAA})}),
       {},
       true,
       {0xAAAA}},
      {"bye_sources_and_reason", Packet(0x83, 203, {1, 2, 3, 0x03627965}), {}, true, {1, 2, 3}},
      {"app_in_the_middle",
       Cat({Report(201, {Block(0x1111, 1, 2, 3, 4)}),
            Packet(0x80, 204, {0xAAAA, 0x71777A31, 0xDEADBEEF}), Packet(0x80, 203, {})}),
       {Seen(0x1111, 1, 2, 3, 4)},
       true},
      // P set on the last packet: its final octet (4) drops the last word.
      {"padding_on_last",
       Cat({Report(201, {}), Packet(0xA1, 203, {0xBBBB, 4})}),
       {},
       true,
       {0xBBBB}},
  };
  RtcpReceived out;  // reused: each parse starts from nothing
  for (const Case& c : cases) {
    ASSERT_TRUE(ParseRtcp(c.bytes.data(), c.bytes.size(), out)) << c.name;
    std::vector<BlockView> blocks;
    for (const auto& b : out.blocks) {
      blocks.emplace_back(b.ssrc, b.fraction_lost, b.cumulative_lost, b.highest_seq, b.jitter,
                          b.lsr, b.dlsr);
    }
    EXPECT_EQ(blocks, c.blocks) << c.name;
    EXPECT_EQ(out.bye, c.bye) << c.name;
    EXPECT_EQ(out.bye_ssrcs, c.bye_ssrcs) << c.name;
  }
}

TEST(RtcpParseTest, MalformedPacketsFail) {
  const Bytes rr = Report(201, {});
  struct Case {
    const char* name;
    Bytes bytes;
  };
  const Case cases[] = {
      {"empty", {}},
      {"version_1", Packet(0x40, 201, {0xAAAA})},
      {"version_1_second", Cat({rr, Packet(0x40, 203, {})})},
      {"length_past_end", Bytes{0x80, 201, 0, 7, 0, 0, 0xAA, 0xAA}},
      {"rr_count_past_length", Report(201, {Block(1, 2, 3, 4, 5)}, 1)},
      {"sr_count_past_length", Report(200, {}, 1)},
      {"sr_without_sender_info", Packet(0x80, 200, {0xAAAA, 1, 2})},
      {"bye_count_past_length", Packet(0x83, 203, {1, 2})},
      {"truncated_header", Cat({rr, Bytes{0x80, 203}})},
      {"rr_zero_length", Packet(0x80, 201, {})},
      {"padding_not_last", Cat({Packet(0xA0, 201, {0xAAAA, 4}), rr})},
      {"padding_zero", Packet(0xA0, 201, {0xAAAA, 0})},
      {"padding_past_packet", Packet(0xA0, 201, {0xAAAA, 9})},
      {"padding_eats_ssrc", Packet(0xA0, 201, {0xAAAA, 8})},
  };
  for (const Case& c : cases) {
    RtcpReceived out;
    EXPECT_FALSE(ParseRtcp(c.bytes.data(), c.bytes.size(), out)) << c.name;
  }
}

// An SR without report blocks, then an SDES with the CNAME and a null item,
// padded to a word.
TEST(RtcpSenderReportTest, Golden) {
  struct Case {
    unsigned long long ntp_us;
    uint32_t ntp_seconds;  // since 1900
    uint32_t ntp_fraction;
    std::string cname;
  };
  const Case cases[] = {
      // 1970 + 100.5 s: 2208988900 s since 1900, half a second.
      {100500000ULL, 0x83AA7EE4, 0x80000000, "qz"},
      // RFC 3550 6.4.1: 10 Nov 1995 11:33:25.125 UTC.
      {816003205125000ULL, 0xB44DB705, 0x20000000, ""},
      {0, 0x83AA7E80, 0, std::string(300, 'n')},  // the CNAME stops at 255 octets
  };
  for (const Case& c : cases) {
    const Bytes sr = BuildRtcpSenderReport(0xAABBCCDD, c.ntp_us, 1234, 10, 2000, c.cname);
    // SDES items: CNAME (1), its length and text, a null item, zeros to a word.
    const std::string name = c.cname.substr(0, 255);
    Bytes items = {1, static_cast<uint8_t>(name.size())};
    items.insert(items.end(), name.begin(), name.end());
    items.resize((items.size() + 1 + 3) / 4 * 4, 0);
    EXPECT_EQ(sr,
              Cat({Packet(0x80, 200, {0xAABBCCDD, c.ntp_seconds, c.ntp_fraction, 1234, 10, 2000}),
                   Packet(0x81, 202, {0xAABBCCDD}, items)}))
        << c.cname;
    RtcpReceived out;
    EXPECT_TRUE(ParseRtcp(sr.data(), sr.size(), out));
    EXPECT_TRUE(out.blocks.empty());
  }
}

// RFC 3550 6.4.1: SR sent at 11:33:25.125 (compact 0xB705:2000), the report
// arrives at 11:33:36.500 (0xB710:8000) after a 5.25 s delay at the receiver
// (DLSR 0x0005:4000): 6.125 s round trip.
TEST(RtcpTimeTest, RoundTripFromRfc3550Example) {
  EXPECT_EQ(RtcpCompactNtp(816003205125000ULL), 0xB7052000u);
  EXPECT_EQ(RtcpCompactNtp(816003216500000ULL), 0xB7108000u);
  struct Case {
    uint32_t arrival, lsr, dlsr;
    long long expected;
  };
  const Case cases[] = {
      {0xB7108000, 0xB7052000, 0x00054000, 6125000},
      {0x00001000, 0xFFFFF000, 0x1000, 62500},   // compact NTP wrapped: 1/16 s
      {0xB7108000, 0, 0, -1},                    // no SR echoed
      {0xB7108000, 0xB7052000, 0x000B6001, -1},  // receiver held it longer than possible
      {0xB7051FFF, 0xB7052000, 0, -1},           // arrived before it was sent
  };
  for (const Case& c : cases) {
    EXPECT_EQ(RtcpRoundTripUs(c.arrival, c.lsr, c.dlsr), c.expected) << std::hex << c.arrival;
  }
}

// The last eight reports sent are traced from their LSR to when they left;
// older ones, and LSR 0 (no report echoed), are not.
TEST(RtcpTimeTest, SentReportsTraceAnLsrToWhenItLeft) {
  RtcpSentReports sent;
  const auto lsr_of = [](int i) { return RtcpCompactNtp(816003205125000ULL + i * 5000000ULL); };
  for (int i = 0; i < 9; ++i) {
    sent.Sent(BuildRtcpSenderReport(1, 816003205125000ULL + i * 5000000ULL, 0, 0, 0, "x"),
              0x1000u + static_cast<uint32_t>(i));
  }
  EXPECT_EQ(sent.SentAt(lsr_of(0)), 0u) << "the ninth report took the first one's place";
  for (int i = 1; i < 9; ++i) {
    EXPECT_EQ(sent.SentAt(lsr_of(i)), 0x1000u + static_cast<uint32_t>(i)) << i;
  }
  EXPECT_EQ(sent.SentAt(0), 0u);
  EXPECT_EQ(sent.SentAt(lsr_of(9)), 0u) << "never sent";
}

}  // namespace
}  // namespace qz_rtsp_internal_server
