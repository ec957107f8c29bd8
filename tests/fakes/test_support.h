// Helpers shared by the tests: a fake clock, a log capture, and builders of
// media packets.
#ifndef TESTS_FAKES_TEST_SUPPORT_H_
#define TESTS_FAKES_TEST_SUPPORT_H_

#include <atomic>
#include <chrono>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "gtest/gtest.h"
#include "protocol/rtsp_in_server/qz_rtsp_packet_pipe.h"
#include "publisher/qz_media_define.h"
#include "utility/qz_utility.h"

namespace qz_test {

using qz_publisher::QZ_MediaPacketRefPtr;
using qz_publisher::QZMediaPacket;

// A clock that only moves when told to. SleepMs records the request and, so
// that threads polling in a loop still make progress, yields for a few
// microseconds of real time without advancing the fake clock.
class FakeTimeSource : public qz_utility::TimeSource {
 public:
  FakeTimeSource() { qz_utility::SetTimeSourceForTesting(this); }
  ~FakeTimeSource() override { qz_utility::SetTimeSourceForTesting(nullptr); }

  QZ_UINT64 NowMs() override { return now_ms_.load(); }
  void SleepMs(int ms) override;
  void Advance(QZ_UINT64 ms) { now_ms_ += ms; }

  // The sleeps asked for since the last call.
  std::vector<int> TakeSleeps();

 private:
  std::atomic<QZ_UINT64> now_ms_{100000};
  std::mutex mutex_;  // guards sleeps_
  std::vector<int> sleeps_;
};

// Collects every log line while alive.
class LogCapture {
 public:
  LogCapture();
  ~LogCapture();
  std::vector<std::string> lines();
  // Lines that begin with `prefix`.
  std::vector<std::string> Matching(const std::string& prefix);
  void Clear();

 private:
  std::mutex mutex_;  // guards lines_
  std::vector<std::string> lines_;
};

// Names each instance of a table-driven test after its row's `name`.
struct RowName {
  template <typename Row>
  std::string operator()(const ::testing::TestParamInfo<Row>& info) const {
    return info.param.name;
  }
};

// Calls `check` with every buffer of 0 to `max_size` bytes drawn from 00,
// 01 and 02: each boundary case of a start-code scanner (codes at either
// end, zero runs, false starts, buffers too short) is among them.
void ForEachShortBuffer(size_t max_size,
                        const std::function<void(const std::vector<QZ_BYTE>&)>& check);

// Polls `done` until it holds or `timeout` of real time passes.
bool WaitFor(const std::function<bool()>& done,
             std::chrono::milliseconds timeout = std::chrono::milliseconds(5000));

QZ_MediaPacketRefPtr MakePacket(QZMediaPacket::MediaType type,
                                QZ_MEDIA_CODEC_ID codec,
                                const std::vector<QZ_BYTE>& data,
                                bool key,
                                long long ts);
QZ_MediaPacketRefPtr MakeVideo(long long ts,
                               bool key,
                               QZ_MEDIA_CODEC_ID codec = QZ_MEDIA_CODEC_ID_H264);
QZ_MediaPacketRefPtr MakeAudio(long long ts, QZ_MEDIA_CODEC_ID codec = QZ_MEDIA_CODEC_ID_AAC);

// Access unit builders: Annex-B bytes of the given NAL units, each behind a
// four-byte start code.
std::vector<QZ_BYTE> AnnexB(const std::vector<std::vector<QZ_BYTE>>& units);

// Small but well-formed-looking parameter sets and slices. Inline so that
// tables in other files can use them during static initialisation.
inline const std::vector<QZ_BYTE> kH264Sps = {0x67, 0x42, 0xC0, 0x1E, 0xDA, 0x02, 0x80};
inline const std::vector<QZ_BYTE> kH264Pps = {0x68, 0xCE, 0x3C, 0x80};
inline const std::vector<QZ_BYTE> kH264Idr = {0x65, 0x88, 0x84, 0x21, 0xA0};
inline const std::vector<QZ_BYTE> kH264Slice = {0x41, 0x9A, 0x24, 0x6C};
inline const std::vector<QZ_BYTE> kH265Vps = {0x40, 0x01, 0x0C, 0x01, 0xFF};
inline const std::vector<QZ_BYTE> kH265Sps = {0x42, 0x01, 0x01, 0x01, 0x60};
inline const std::vector<QZ_BYTE> kH265Pps = {0x44, 0x01, 0xC1, 0x72};
inline const std::vector<QZ_BYTE> kH265Idr = {0x26, 0x01, 0xAF, 0x09, 0x40};  // IDR_W_RADL
inline const std::vector<QZ_BYTE> kH265Trail = {0x02, 0x01, 0xD0, 0x11};      // TRAIL_R
inline const std::vector<QZ_BYTE> kAacConfig44k2 = {0x12, 0x10};  // AAC-LC 44100 Hz stereo
inline const std::vector<QZ_BYTE> kAacConfig48k1 = {0x11, 0x88};  // AAC-LC 48000 Hz mono

// The NAL units of a video record, copied out.
std::vector<std::vector<QZ_BYTE>> NalUnits(
    const qz_rtsp_internal_server::QZRtspVideoPacket& record);

// A record's NAL unit or frame buffer holding a copy of `bytes`.
std::shared_ptr<qz_rtsp_internal_server::QZRtspPacketData> PacketData(
    const std::vector<QZ_BYTE>& bytes);

}  // namespace qz_test

#endif  // TESTS_FAKES_TEST_SUPPORT_H_
