// Base64 (RFC 4648) and hex encoding for SDP attributes.
#ifndef UTILITY_QZ_BASE64_H_
#define UTILITY_QZ_BASE64_H_

#include <cstddef>
#include <cstdint>
#include <string>

namespace qz_utility {

std::string Base64Encode(const uint8_t* data, size_t size);
// Decodes up to the first '='; false on a character outside the alphabet.
bool Base64Decode(const std::string& in, std::string& out);
// The 6-bit value of one character of the alphabet, -1 for any other.
int Base64Value(char c);
// Lower-case hex, two digits a byte.
std::string HexEncode(const uint8_t* data, size_t size);

}  // namespace qz_utility

#endif  // UTILITY_QZ_BASE64_H_
