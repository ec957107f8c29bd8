#include "utility/qz_base64.h"

namespace qz_utility {

std::string Base64Encode(const uint8_t* data, size_t size) {
  static const char kTable[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string out;
  out.reserve((size + 2) / 3 * 4);
  size_t i = 0;
  for (; i + 2 < size; i += 3) {
    const uint32_t v = (data[i] << 16) | (data[i + 1] << 8) | data[i + 2];
    out += kTable[(v >> 18) & 63];
    out += kTable[(v >> 12) & 63];
    out += kTable[(v >> 6) & 63];
    out += kTable[v & 63];
  }
  if (i < size) {
    uint32_t v = data[i] << 16;
    if (i + 1 < size) {
      v |= data[i + 1] << 8;
    }
    out += kTable[(v >> 18) & 63];
    out += kTable[(v >> 12) & 63];
    out += (i + 1 < size) ? kTable[(v >> 6) & 63] : '=';
    out += '=';
  }
  return out;
}

int Base64Value(char c) {
  if (c >= 'A' && c <= 'Z') {
    return c - 'A';
  }
  if (c >= 'a' && c <= 'z') {
    return c - 'a' + 26;
  }
  if (c >= '0' && c <= '9') {
    return c - '0' + 52;
  }
  return c == '+' ? 62 : c == '/' ? 63 : -1;
}

bool Base64Decode(const std::string& in, std::string& out) {
  out.clear();
  unsigned value = 0;  // holds at most 14 pending bits
  int bits = -8;
  for (char c : in) {
    if (c == '=') {
      break;
    }
    const int d = Base64Value(c);
    if (d < 0) {
      return false;
    }
    value = ((value << 6) | static_cast<unsigned>(d)) & 0x3FFFu;
    bits += 6;
    if (bits >= 0) {
      out.push_back(static_cast<char>((value >> bits) & 0xFF));
      bits -= 8;
    }
  }
  return true;
}

std::string HexEncode(const uint8_t* data, size_t size) {
  static const char kDigits[] = "0123456789abcdef";
  std::string out;
  out.reserve(size * 2);
  for (size_t i = 0; i < size; ++i) {
    out += kDigits[data[i] >> 4];
    out += kDigits[data[i] & 15];
  }
  return out;
}

}  // namespace qz_utility
