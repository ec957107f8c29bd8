// The stream's packet ring as a GOP cache: what a viewer that joins now
// would be sent must always start at a key frame, the latest GOP survives the
// soft byte bound, and past the hard cap the cache is dropped and a key frame
// asked for. What the stream makes of each audio format's records, and the
// RTP time of AAC frames.
#include "protocol/rtsp_in_server/media/qz_rtsp_stream.h"

#include <functional>
#include <memory>
#include <sstream>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "gtest/gtest.h"
#include "tests/fakes/fake_seams.h"
#include "tests/fakes/test_support.h"

namespace qz_rtsp_internal_server {
namespace {

using Bytes = std::vector<uint8_t>;

// Nothing is posted through the gate: the tests hand the records to the
// stream themselves.
std::shared_ptr<RtspStream> MakeStream(std::shared_ptr<QZRtspPacketPiple> piple,
                                       RtspStreamLimits limits = RtspStreamLimits()) {
  qz_test::CountingRandom random;
  return std::make_shared<RtspStream>(
      std::move(piple), std::make_shared<RtspIoGate>([](std::function<void()>) {}), limits, random);
}

std::shared_ptr<QZRtspPacketPiple> AudioPipe(QZ_MEDIA_CODEC_ID codec, int rate, int channels) {
  auto piple = std::make_shared<QZRtspPacketPiple>("mic");
  piple->IsHasAudio(true);
  piple->SetAudioCodecID(codec);
  piple->SetAudioInfo(rate, channels);
  return piple;
}

void FeedAudio(RtspStream& stream,
               QZ_MEDIA_CODEC_ID codec,
               int channels,
               long long ms,
               size_t size) {
  auto record = std::make_shared<QZRtspAudioPacket>();
  record->codec_id_ = codec;
  record->channels_ = channels;
  record->time_stamp_ = static_cast<QZ_UINT64>(ms);
  record->data_ = qz_test::PacketData(Bytes(size, 0x21));
  stream.OnAudio(record);
}

TEST(GopCacheTest, CacheStartsAtAKeyFrameWithinItsBounds) {
  struct Case {
    const char* name;
    bool keep_gop;
    std::string frames;  // K: a 3000-byte key frame, P: a 1000-byte slice
    bool has_key;        // a key frame is held at the end
    int cache_lost;      // times a key frame was asked for
  };
  // Byte bound 12000: a key frame and about eight slices; hard cap twice that.
  const Case cases[] = {
      {"older_gops_go_the_latest_stays", true, "KPPPKPPKP", true, 0},
      {"gop_over_the_soft_bound_is_kept", true, "KPPPPPPPPPPPPPP", true, 0},
      {"gop_over_the_hard_cap_is_dropped", true, "K" + std::string(24, 'P'), false, 1},
      {"new_key_frame_after_the_drop_refills", true, "K" + std::string(24, 'P') + "KPP", true, 1},
      {"without_the_cache_nothing_is_held", false, "KPPKPP", false, 0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    auto piple = std::make_shared<QZRtspPacketPiple>("cam");
    piple->IsHasVideo(true);
    piple->SetVideoCodecID(QZ_MEDIA_CODEC_ID_H264);
    piple->SetSpsPps(qz_test::kH264Sps.data(), 7, qz_test::kH264Pps.data(), 4);
    RtspStreamLimits limits;
    limits.max_ring_bytes = 12000;
    limits.keep_gop = c.keep_gop;
    auto stream = MakeStream(piple, limits);
    int lost = 0;
    stream->set_on_cache_lost([&lost](RtspStream&) { ++lost; });
    long long t = 0;
    for (char f : c.frames) {
      auto record = std::make_shared<QZRtspVideoPacket>();
      record->codec_id_ = QZ_MEDIA_CODEC_ID_H264;
      record->is_key_frame_ = f == 'K';
      record->time_stamp_ = static_cast<QZ_UINT64>(t += 40);
      if (record->is_key_frame_) {
        record->nal_units_.push_back(qz_test::PacketData(qz_test::kH264Sps));
        record->nal_units_.push_back(qz_test::PacketData(qz_test::kH264Pps));
      }
      record->nal_units_.push_back(
          qz_test::PacketData(record->is_key_frame_ ? Bytes(3000, 0x65) : Bytes(1000, 0x41)));
      stream->OnVideo(record);
      // After every record: whatever a joining viewer gets begins at a key frame.
      if (stream->has_key_frame()) {
        ASSERT_EQ(stream->begin_index(), stream->last_key_index()) << "after frame " << t / 40;
        ASSERT_TRUE(stream->At(stream->begin_index())->key_frame_start);
      }
    }
    EXPECT_EQ(stream->has_key_frame(), c.has_key);
    EXPECT_EQ(lost, c.cache_lost);
    EXPECT_EQ(stream->Stats().cache_bytes > 0, c.has_key);
    EXPECT_LE(stream->Stats().cache_bytes, limits.max_ring_bytes * RtspStream::kHardCapFactor);
  }
}

// "size@time" items; "|" moves on to the next record.
std::vector<std::tuple<size_t, long long, size_t>> Items(const std::string& text) {
  std::vector<std::tuple<size_t, long long, size_t>> out;  // record, time, size
  std::istringstream in(text);
  size_t record = 0;
  for (std::string t; in >> t;) {
    if (t == "|") {
      ++record;
    } else {
      const size_t at = t.find('@');
      out.emplace_back(record, std::stoll(t.substr(at + 1)), std::stoull(t.substr(0, at)));
    }
  }
  return out;
}

// At 1399 bytes a payload. G.711 is split on samples of all channels, each
// packet stamped with its first sample's time, and the next record continues
// from the samples sent; a Speex record goes whole or not at all. Only the
// track's first packet is marked. A sender report anchored at any packet of
// a record maps the record's time.
TEST(RtspStreamAudioTest, RecordsToPackets) {
  struct Case {
    const char* name;
    QZ_MEDIA_CODEC_ID codec;
    int rate, channels;
    const char* records;  // bytes@ms
    const char* packets;  // payload bytes@RTP time past the first packet's
    unsigned long long refused;
  };
  const Case cases[] = {
      // 3000 bytes of stereo: 1500 samples, 187.5 ms.
      {"g711_stereo", QZ_MEDIA_CODEC_ID_PCMA, 8000, 2, "3000@0 3000@188",
       "1398@0 1398@699 204@1398 | 1398@1500 1398@2199 204@2898", 0},
      {"speex", QZ_MEDIA_CODEC_ID_SPEEX_WB, 16000, 1, "1399@0 1400@20 70@40", "1399@0 | | 70@640",
       1},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    RtspStreamLimits limits;
    limits.max_payload = 1399;
    auto stream = MakeStream(AudioPipe(c.codec, c.rate, c.channels), limits);
    RtspRingReader reader;  // holds every packet from index 0 on
    reader.reading = true;
    stream->AddReader(&reader);
    for (const auto& r : Items(c.records)) {
      FeedAudio(*stream, c.codec, c.channels, std::get<1>(r), std::get<2>(r));
    }
    const auto packets = Items(c.packets);
    ASSERT_EQ(stream->end_index() - stream->begin_index(), packets.size());
    const uint32_t first_time = stream->At(stream->begin_index())->rtp_time;
    uint64_t record_start = stream->begin_index();
    for (size_t i = 0; i < packets.size(); ++i) {
      const uint64_t index = stream->begin_index() + i;
      const RtpPacket& p = *stream->At(index);
      EXPECT_EQ(std::make_tuple(p.UdpSize() - kRtpHeaderSize, p.rtp_time - first_time, p.marker),
                std::make_tuple(std::get<2>(packets[i]), std::get<1>(packets[i]), i == 0))
          << i;
      if (i > 0 && std::get<0>(packets[i]) != std::get<0>(packets[i - 1])) {
        record_start = index;
      }
      EXPECT_EQ(stream->SenderReport(0, &index), stream->SenderReport(0, &record_start)) << i;
    }
    EXPECT_EQ(stream->audio_records_refused(), c.refused);
    stream->RemoveReader(&reader);
  }
}

// Record times are each frame's true time rounded to the millisecond. A frame
// whose predecessor's length the stream can know is stamped exactly that
// length later; the first frame, the frame after a lost one and frames
// without a usable config are stamped from their record times. After ten
// minutes the pipe's config changes to `then`.
TEST(AacTimingTest, RtpTimeAdvancesByTheConfiguredFrameLength) {
  struct Config {
    Bytes asc;    // AudioSpecificConfig; empty: none
    int samples;  // what a frame really lasts
    int known;    // what the stream can know of it (0: nothing)
  };
  struct Case {
    const char* name;
    int rate;
    Config first, then;
  };
  const Case cases[] = {
      {"lc1024_then_lc960_at_44100", 44100, {{0x12, 0x10}, 1024, 1024}, {{0x12, 0x14}, 960, 960}},
      {"ld512_then_lc960_at_48000", 48000, {{0xB9, 0x90}, 512, 512}, {{0x11, 0x94}, 960, 960}},
      {"no_config_then_ld480_at_48000", 48000, {{}, 480, 0}, {{0xB9, 0x94}, 480, 480}},
      // The track's clock stays at the first config's rate.
      {"config_at_another_rate_unused", 44100, {{0x12, 0x10}, 1024, 1024}, {{0x11, 0x90}, 1024, 0}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    auto piple = AudioPipe(QZ_MEDIA_CODEC_ID_AAC, c.rate, 2);
    const auto set_config = [&](const Config& config) {
      piple->SetAudioSpecificConfig(config.asc.empty() ? nullptr : config.asc.data(),
                                    static_cast<QZ_UINT32>(config.asc.size()));
    };
    set_config(c.first);
    auto stream = MakeStream(piple);

    long long position = 0;  // the next frame's true time, in samples
    uint32_t offset = 0;     // the track's random RTP time for record time 0
    uint32_t last = 0;
    int step = -1;  // the previous frame's length as the stream can know it; -1: none yet
    const auto feed = [&](const Config& config) -> ::testing::AssertionResult {
      const long long ms = (position * 2000 + c.rate) / (2LL * c.rate);
      FeedAudio(*stream, QZ_MEDIA_CODEC_ID_AAC, 2, ms, 6);
      // The sender report pairs the newest packet's RTP time with its record time.
      const std::vector<uint8_t> sr = stream->SenderReport(0);
      const uint32_t rtp = uint32_t{sr.at(16)} << 24 | sr.at(17) << 16 | sr.at(18) << 8 | sr.at(19);
      const uint32_t by_record = static_cast<uint32_t>(ms * c.rate / 1000);
      if (step < 0) {
        offset = rtp - by_record;  // random: the first frame tells it
      }
      const uint32_t want = step > 0 ? last + static_cast<uint32_t>(step) : offset + by_record;
      last = rtp;
      step = config.known;
      position += config.samples;
      return rtp == want ? ::testing::AssertionSuccess()
                         : ::testing::AssertionFailure()
                               << "frame at " << ms << " ms: RTP time " << rtp - offset << ", want "
                               << want - offset;
    };

    const long long minute = 60LL * c.rate;
    while (position < 5 * minute) {
      ASSERT_TRUE(feed(c.first));
    }
    position += c.first.samples;  // a lost frame
    step = 0;
    while (position < 10 * minute) {
      ASSERT_TRUE(feed(c.first));
    }
    set_config(c.then);
    for (int i = 0; i < 100; ++i) {
      ASSERT_TRUE(feed(c.then));
    }
  }
}

}  // namespace
}  // namespace qz_rtsp_internal_server
