// NalUnitList::PaserNalUnits over arbitrary bytes, both codecs.
#include <cstdint>
#include <cstdlib>
#include <vector>

#include "topcommon/qz_h2645/qz_h2645_nal_unit_type.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > 256 * 1024) {
    return 0;
  }
  std::vector<QZ_BYTE> buf(data, data + size);
  for (bool is_h264 : {true, false}) {
    qz_h2645::NalUnitList list;
    const bool ok = list.PaserNalUnits(buf.data(), static_cast<QZ_UINT32>(buf.size()), is_h264);
    if (!ok && !list.GetList().empty()) {
      abort();
    }
    for (const auto& item : list.GetList()) {
      if (item.IsEmpty() || item.Data() < buf.data() ||
          item.Data() + item.Size() > buf.data() + buf.size()) {
        abort();
      }
    }
    std::vector<std::shared_ptr<std::vector<QZ_BYTE>>> sets;
    list.GetVpsList(sets);
    list.GetSpsList(sets);
    list.GetPpsList(sets);
    if (list.IsHasSps() == false && list.IsHasPPs() == false && list.IsHasVps() == false &&
        !sets.empty()) {
      abort();
    }
  }
  return 0;
}
