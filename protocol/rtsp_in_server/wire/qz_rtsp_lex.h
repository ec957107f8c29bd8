// Lexing shared by the RTSP message and typed header parsers (RFC 2616 2.2
// rules as RTSP 1.0 uses them): blanks, tokens, quoted strings, numbers and
// splitting a header into its parameters. Internal to wire/.
#ifndef PROTOCOL_RTSP_IN_SERVER_WIRE_QZ_RTSP_LEX_H_
#define PROTOCOL_RTSP_IN_SERVER_WIRE_QZ_RTSP_LEX_H_

#include <cstddef>
#include <string>
#include <utility>
#include <vector>

namespace qz_rtsp_internal_server {
namespace lex {

inline bool IsBlank(char c) {
  return c == ' ' || c == '\t';
}

// Control characters (tab aside): never allowed in a value we keep, so
// that whatever a writer echoes stays one header line.
bool IsCtl(char c);
// RFC 2616 token characters, and a non-empty run of them.
bool IsTokenChar(char c);
bool IsToken(const std::string& s);

// The first index at or after `i` that is not a blank.
size_t SkipBlanks(const std::string& s, size_t i);
std::string Trim(const std::string& s);
// Case-insensitive; `prefix` and `b` are lower case ASCII.
bool EqualsNoCase(const std::string& a, const char* b);
bool StartsWithNoCase(const std::string& s, size_t pos, const char* prefix);

// Splits on `sep` (outside double quotes when `quotes`); false on an
// unterminated quote.
bool SplitQuoted(const std::string& s, char sep, std::vector<std::string>& out, bool quotes = true);
// "key = value" as (key, value), both trimmed; the value is empty when
// there is no '='.
std::pair<std::string, std::string> SplitParam(const std::string& param);

// 1 to `digits` decimal digits, at most `max`.
bool ParseNumber(const std::string& s, size_t digits, long long max, long long& out);

// The quoted-string that starts at s[i] (a '"'), escapes removed; `i` ends
// past the closing quote. False when unterminated or holding a control
// character.
bool ReadQuotedString(const std::string& s, size_t& i, std::string& out);
// `value` as a quoted-string, '"' and '\' escaped: what ReadQuotedString
// reads back as `value`.
std::string QuoteString(const std::string& value);

}  // namespace lex
}  // namespace qz_rtsp_internal_server

#endif  // PROTOCOL_RTSP_IN_SERVER_WIRE_QZ_RTSP_LEX_H_
