// The shape every typed header test shares: per header, tables that drive
// both the parser and the writer.
#ifndef TESTS_PROTOCOL_RTSP_IN_SERVER_WIRE_QZ_HEADER_ROWS_H_
#define TESTS_PROTOCOL_RTSP_IN_SERVER_WIRE_QZ_HEADER_ROWS_H_

#include <string>
#include <utility>
#include <vector>

#include "gtest/gtest.h"

namespace qz_rtsp_internal_server {

// `canonical`: (text, value), the text parses as the value and the value is
// written as the text. `spellings`: (text, canonical text), the text parses
// as a value written as the canonical text. `malformed`: refused.
template <typename V, typename Parse, typename Write>
void CheckHeader(const std::vector<std::pair<std::string, V>>& canonical,
                 const std::vector<std::pair<std::string, std::string>>& spellings,
                 const std::vector<std::string>& malformed,
                 Parse parse,
                 Write write) {
  for (const auto& row : canonical) {
    V parsed{};
    ASSERT_TRUE(parse(row.first, parsed)) << row.first;
    EXPECT_TRUE(parsed == row.second) << row.first << " parsed as " << write(parsed);
    EXPECT_EQ(write(row.second), row.first);
  }
  for (const auto& row : spellings) {
    V parsed{};
    EXPECT_TRUE(parse(row.first, parsed)) << row.first;
    EXPECT_EQ(write(parsed), row.second) << row.first;
  }
  for (const std::string& text : malformed) {
    V parsed{};
    EXPECT_FALSE(parse(text, parsed)) << text;
  }
}

}  // namespace qz_rtsp_internal_server

#endif  // TESTS_PROTOCOL_RTSP_IN_SERVER_WIRE_QZ_HEADER_ROWS_H_
