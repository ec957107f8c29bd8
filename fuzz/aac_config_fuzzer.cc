// AACAudioConfig::Parser and FrameLength over arbitrary bytes.
#include <cstdint>
#include <cstdlib>
#include <vector>

#include "topcommon/qz_aac_audio_config.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > 64) {
    return 0;
  }
  std::vector<QZ_BYTE> buf(data, data + size);
  int obj = 0, rate = 0, channels = 0;
  const bool ok = qz_top_common::AACAudioConfig::Parser(buf.data(), static_cast<int>(buf.size()),
                                                        obj, rate, channels);
  if (ok && (rate <= 0 || channels < 1 || channels > 8 || obj <= 0)) {
    abort();
  }
  // FrameLength is 0 or an AAC frame length, and non-zero only where Parser
  // succeeds.
  switch (qz_top_common::AACAudioConfig::FrameLength(buf.data(), static_cast<int>(buf.size()))) {
    case 0:
      break;
    case 480:
    case 512:
    case 960:
    case 1024:
    case 1920:
    case 2048:
      if (!ok) {
        abort();
      }
      break;
    default:
      abort();
  }
  return 0;
}
