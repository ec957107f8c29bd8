// AACAudioConfig::Parser over arbitrary bytes.
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
  if (qz_top_common::AACAudioConfig::Parser(buf.data(), static_cast<int>(buf.size()), obj, rate,
                                            channels)) {
    if (rate <= 0 || channels < 1 || channels > 8 || obj <= 0) {
      abort();
    }
  }
  return 0;
}
