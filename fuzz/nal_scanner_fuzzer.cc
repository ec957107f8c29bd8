// FindNalStartCode and FindNalType over arbitrary bytes: results must lie
// inside the buffer and describe a real start code.
#include <cstdint>
#include <cstdlib>
#include <vector>

#include "tests/publisher/rtsp_sinker_test_peer.h"
#include "topcommon/qz_event_mgr.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1 || size > 64 * 1024) {
    return 0;
  }
  static qz_top_common::EventMgr events;
  static qz_publisher::RtspSinker sinker(&events, "fuzz", false, true, 1);
  qz_publisher::RtspSinkerTestPeer peer(sinker);
  // The first byte picks the NAL type; the copy gives ASan exact bounds.
  const int type = data[0] & 0x1F;
  std::vector<QZ_UINT8> buf(data + 1, data + size);
  QZ_UINT8* begin = buf.data();
  const int n = static_cast<int>(buf.size());
  int len = 0;
  if (QZ_UINT8* p = peer.FindNalStartCode(begin, n, len)) {
    if ((len != 3 && len != 4) || p < begin || p + len > begin + n || p[len - 1] != 1) {
      abort();
    }
  }
  int start_code_len = 0;
  int nal_len = 0;
  QZ_UINT8* pos = begin;
  while (QZ_UINT8* p = peer.FindNalType(pos, static_cast<int>(begin + n - pos), type,
                                        start_code_len, &nal_len)) {
    // A header byte that opens the next start code gives a unit of nothing but
    // its start code (nal_len == start_code_len); the scan still advances.
    if (nal_len < start_code_len || p + nal_len > begin + n || (p[start_code_len] & 0x1F) != type) {
      abort();
    }
    pos = p + nal_len;
  }
  return 0;
}
