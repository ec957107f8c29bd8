#include "tests/fakes/test_support.h"

#include <algorithm>

#include <thread>
#include <utility>

#include "gtest/gtest.h"
#include "utility/qz_log.h"

namespace qz_test {

void FakeTimeSource::SleepMs(int ms) {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    sleeps_.push_back(ms);
  }
  std::this_thread::sleep_for(std::chrono::microseconds(200));
}

std::vector<int> FakeTimeSource::TakeSleeps() {
  std::lock_guard<std::mutex> lock(mutex_);
  return std::exchange(sleeps_, {});
}

LogCapture::LogCapture() {
  qz_utility::SetLogSinkForTesting([this](const std::string& line) {
    std::lock_guard<std::mutex> lock(mutex_);
    lines_.push_back(line);
  });
}

LogCapture::~LogCapture() {
  qz_utility::SetLogSinkForTesting(nullptr);
}

std::vector<std::string> LogCapture::lines() {
  std::lock_guard<std::mutex> lock(mutex_);
  return lines_;
}

std::vector<std::string> LogCapture::Matching(const std::string& prefix) {
  std::vector<std::string> out;
  for (const std::string& line : lines()) {
    if (line.compare(0, prefix.size(), prefix) == 0) {
      out.push_back(line);
    }
  }
  return out;
}

void LogCapture::Clear() {
  std::lock_guard<std::mutex> lock(mutex_);
  lines_.clear();
}

bool WaitFor(const std::function<bool()>& done, std::chrono::milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (!done()) {
    if (std::chrono::steady_clock::now() > deadline) {
      return false;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

QZ_MediaPacketRefPtr MakePacket(QZMediaPacket::MediaType type,
                                QZ_MEDIA_CODEC_ID codec,
                                const std::vector<QZ_BYTE>& data,
                                bool key,
                                long long ts) {
  return QZ_MediaPacketRefPtr(new qz_base::RefCountedObject<QZMediaPacket>(
      type, codec, data.data(), static_cast<int>(data.size()), key, ts));
}

QZ_MediaPacketRefPtr MakeVideo(long long ts, bool key, QZ_MEDIA_CODEC_ID codec) {
  std::vector<QZ_BYTE> data;
  if (codec == QZ_MEDIA_CODEC_ID_H265) {
    data = key ? AnnexB({kH265Vps, kH265Sps, kH265Pps, kH265Idr}) : AnnexB({kH265Trail});
  } else {
    data = key ? AnnexB({kH264Sps, kH264Pps, kH264Idr}) : AnnexB({kH264Slice});
  }
  return MakePacket(QZMediaPacket::MediaTypeVideo, codec, data, key, ts);
}

QZ_MediaPacketRefPtr MakeAudio(long long ts, QZ_MEDIA_CODEC_ID codec) {
  return MakePacket(QZMediaPacket::MediaTypeAudio, codec, {0x21, 0x10, 0x05, 0x00}, false, ts);
}

std::vector<QZ_BYTE> AnnexB(const std::vector<std::vector<QZ_BYTE>>& units) {
  std::vector<QZ_BYTE> out;
  for (const auto& unit : units) {
    out.insert(out.end(), {0, 0, 0, 1});
    out.insert(out.end(), unit.begin(), unit.end());
  }
  return out;
}

std::shared_ptr<qz_rtsp_internal_server::QZRtspPacketData> PacketData(
    const std::vector<QZ_BYTE>& bytes) {
  auto* data = new QZ_BYTE[bytes.size()];
  std::copy(bytes.begin(), bytes.end(), data);
  return std::make_shared<qz_rtsp_internal_server::QZRtspPacketData>(
      data, static_cast<QZ_UINT32>(bytes.size()));
}

std::vector<std::vector<QZ_BYTE>> NalUnits(
    const qz_rtsp_internal_server::QZRtspVideoPacket& record) {
  std::vector<std::vector<QZ_BYTE>> out;
  for (const auto& unit : record.nal_units_) {
    out.emplace_back(unit->data_.get(), unit->data_.get() + unit->size_);
  }
  return out;
}

void ForEachShortBuffer(size_t max_size,
                        const std::function<void(const std::vector<QZ_BYTE>&)>& check) {
  for (size_t size = 0; size <= max_size; ++size) {
    std::vector<QZ_BYTE> b(size, 0);
    for (;;) {
      check(b);
      if (::testing::Test::HasFatalFailure()) {
        return;  // the first buffer that fails is enough
      }
      size_t i = 0;  // the next buffer, counting in base 3
      while (i < size && b[i] == 2) {
        b[i++] = 0;
      }
      if (i == size) {
        break;
      }
      ++b[i];
    }
  }
}

}  // namespace qz_test
