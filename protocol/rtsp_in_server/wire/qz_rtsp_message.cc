#include "protocol/rtsp_in_server/wire/qz_rtsp_message.h"

#include <strings.h>

#include <algorithm>
#include <cstdlib>

#include "protocol/rtsp_in_server/wire/qz_rtsp_lex.h"

namespace qz_rtsp_internal_server {
namespace {

using lex::Trim;

// The method and the URI of a request line: visible ASCII, no blanks.
bool IsVisibleWord(const std::string& s) {
  if (s.empty()) {
    return false;
  }
  for (unsigned char c : s) {
    if (c <= 32 || c >= 127) {
      return false;
    }
  }
  return true;
}

// The header lines, Content-Length when there is a body, the blank line
// and the body.
void AppendHeadersAndBody(const std::vector<std::pair<std::string, std::string>>& headers,
                          const std::string& body,
                          std::string& out) {
  for (const auto& h : headers) {
    out += h.first + ": " + h.second + "\r\n";
  }
  if (!body.empty()) {
    out += "Content-Length: " + std::to_string(body.size()) + "\r\n";
  }
  out += "\r\n";
  out += body;
}

}  // namespace

const std::string* RtspRequest::Header(const std::string& name) const {
  for (const auto& h : headers) {
    if (strcasecmp(h.first.c_str(), name.c_str()) == 0) {
      return &h.second;
    }
  }
  return nullptr;
}

int RtspRequest::HeaderCount(const std::string& name) const {
  int count = 0;
  for (const auto& h : headers) {
    if (strcasecmp(h.first.c_str(), name.c_str()) == 0) {
      ++count;
    }
  }
  return count;
}

void RtspRequestParser::Feed(const char* data, size_t size) {
  if (failed_) {
    return;
  }
  buffer_.append(data, size);
}

RtspParseResult RtspRequestParser::Fail(const char* why) {
  failed_ = true;
  error_ = why;
  buffer_.clear();
  pos_ = 0;
  return RtspParseResult::kBadRequest;
}

void RtspRequestParser::Compact() {
  if (pos_ > 0 && (pos_ >= 4096 || pos_ == buffer_.size())) {
    buffer_.erase(0, pos_);
    pos_ = 0;
  }
}

RtspParseResult RtspRequestParser::Next() {
  if (failed_) {
    return RtspParseResult::kBadRequest;
  }
  // Stray line ends between messages are allowed (RFC 2326 15.1 says a
  // client may send them as keep-alives).
  while (pos_ < buffer_.size() && (buffer_[pos_] == '\r' || buffer_[pos_] == '\n')) {
    ++pos_;
  }
  Compact();
  const size_t avail = buffer_.size() - pos_;
  if (avail == 0) {
    return RtspParseResult::kNeedMore;
  }

  if (buffer_[pos_] == '$') {
    // RFC 2326 10.12: '$', one-byte channel, two-byte length, payload.
    if (avail < 4) {
      return RtspParseResult::kNeedMore;
    }
    const size_t length = (static_cast<unsigned char>(buffer_[pos_ + 2]) << 8) |
                          static_cast<unsigned char>(buffer_[pos_ + 3]);
    if (avail < 4 + length) {
      return RtspParseResult::kNeedMore;
    }
    channel_ = static_cast<uint8_t>(buffer_[pos_ + 1]);
    payload_.assign(buffer_, pos_ + 4, length);
    pos_ += 4 + length;
    Compact();
    return RtspParseResult::kInterleaved;
  }

  // Find the end of the header block.
  const size_t end = buffer_.find("\r\n\r\n", pos_);
  const size_t lf_end = buffer_.find("\n\n", pos_);
  size_t header_end = std::string::npos;
  size_t sep_len = 0;
  if (end != std::string::npos && (lf_end == std::string::npos || end < lf_end)) {
    header_end = end;
    sep_len = 4;
  } else if (lf_end != std::string::npos) {
    header_end = lf_end;
    sep_len = 2;
  }
  if (header_end == std::string::npos) {
    if (avail > limits_.max_header_bytes) {
      return Fail("header block too large");
    }
    // A single line that is already longer than allowed.
    const size_t first_lf = buffer_.find('\n', pos_);
    const size_t line_len = (first_lf == std::string::npos ? buffer_.size() : first_lf) - pos_;
    if (line_len > limits_.max_line) {
      return Fail("line too long");
    }
    return RtspParseResult::kNeedMore;
  }
  if (header_end - pos_ > limits_.max_header_bytes) {
    return Fail("header block too large");
  }

  RtspRequest req;
  size_t line_start = pos_;
  bool first = true;
  while (line_start < header_end) {
    size_t lf = buffer_.find('\n', line_start);
    if (lf == std::string::npos || lf > header_end) {
      lf = header_end;
    }
    size_t line_end = lf;
    if (line_end > line_start && buffer_[line_end - 1] == '\r') {
      --line_end;
    }
    if (line_end - line_start > limits_.max_line) {
      return Fail("line too long");
    }
    const std::string line = buffer_.substr(line_start, line_end - line_start);
    line_start = lf + 1;
    // Control characters (a CR that ends no line above all) would be echoed
    // into answers as line breaks of their own.
    if (std::any_of(line.begin(), line.end(), [](char c) {
          return (static_cast<unsigned char>(c) < 0x20 && c != '\t') || c == 0x7f;
        })) {
      return Fail("control character in a header");
    }
    if (first) {
      first = false;
      if (responses_ && line.compare(0, 5, "RTSP/") == 0) {
        // "RTSP/1.0 200 OK": version, a three-digit code, a reason that
        // may hold blanks or be empty.
        const size_t s1 = line.find(' ');
        long long code = 0;
        if (s1 == std::string::npos || !lex::ParseNumber(line.substr(s1 + 1, 3), 3, 999, code) ||
            code < 100 || (line.size() > s1 + 4 && line[s1 + 4] != ' ')) {
          return Fail("malformed status line");
        }
        req.version = line.substr(0, s1);
        req.status = static_cast<int>(code);
        req.reason = line.size() > s1 + 5 ? line.substr(s1 + 5) : std::string();
        continue;
      }
      const size_t s1 = line.find(' ');
      const size_t s2 = s1 == std::string::npos ? s1 : line.find(' ', s1 + 1);
      if (s1 == std::string::npos || s2 == std::string::npos) {
        return Fail("malformed request line");
      }
      req.method = line.substr(0, s1);
      req.uri = line.substr(s1 + 1, s2 - s1 - 1);
      req.version = line.substr(s2 + 1);
      if (!IsVisibleWord(req.method) || !IsVisibleWord(req.uri) ||
          req.version.compare(0, 5, "RTSP/") != 0) {
        return Fail("malformed request line");
      }
      continue;
    }
    if (!line.empty() && (line[0] == ' ' || line[0] == '\t') && !req.headers.empty()) {
      req.headers.back().second += " " + Trim(line);  // folded header
      continue;
    }
    const size_t colon = line.find(':');
    if (colon == std::string::npos || colon == 0) {
      return Fail("malformed header");
    }
    if (req.headers.size() >= limits_.max_headers) {
      return Fail("too many headers");
    }
    req.headers.emplace_back(Trim(line.substr(0, colon)), Trim(line.substr(colon + 1)));
  }
  if (first) {
    return Fail("empty request");
  }

  size_t body_len = 0;
  if (req.Header("Transfer-Encoding") != nullptr) {
    // RTSP has no chunked bodies; a proxy and this server could otherwise
    // disagree on where the request ends.
    return Fail("Transfer-Encoding");
  }
  if (req.HeaderCount("Content-Length") > 1) {
    return Fail("repeated Content-Length");
  }
  if (const std::string* cl = req.Header("Content-Length")) {
    if (cl->empty() || cl->find_first_not_of("0123456789") != std::string::npos || cl->size() > 9) {
      return Fail("bad Content-Length");
    }
    body_len = static_cast<size_t>(std::strtoul(cl->c_str(), nullptr, 10));
    if (body_len > limits_.max_body) {
      return Fail("body too large");
    }
  }
  const size_t body_start = header_end + sep_len;
  if (buffer_.size() < body_start + body_len) {
    return RtspParseResult::kNeedMore;
  }
  req.body = buffer_.substr(body_start, body_len);
  pos_ = body_start + body_len;
  Compact();
  const bool response = req.status != 0;
  request_ = std::move(req);
  return response ? RtspParseResult::kResponse : RtspParseResult::kRequest;
}

const char* RtspReason(int code) {
  switch (code) {
    case 200:
      return "OK";
    case 400:
      return "Bad Request";
    case 403:
      return "Forbidden";
    case 401:
      return "Unauthorized";
    case 404:
      return "Not Found";
    case 405:
      return "Method Not Allowed";
    case 453:
      return "Not Enough Bandwidth";
    case 454:
      return "Session Not Found";
    case 455:
      return "Method Not Valid in This State";
    case 459:
      return "Aggregate Operation Not Allowed";
    case 461:
      return "Unsupported Transport";
    case 500:
      return "Internal Server Error";
    case 501:
      return "Not Implemented";
    case 503:
      return "Service Unavailable";
    case 505:
      return "RTSP Version Not Supported";
    case 551:
      return "Option not supported";
    default:
      return "Unknown";
  }
}

std::string WriteRtspResponse(int code,
                              const std::string& cseq,
                              const std::vector<std::pair<std::string, std::string>>& headers,
                              const std::string& body) {
  std::string out = "RTSP/1.0 " + std::to_string(code) + " " + RtspReason(code) + "\r\n";
  if (!cseq.empty()) {
    out += "CSeq: " + cseq + "\r\n";
  }
  AppendHeadersAndBody(headers, body, out);
  return out;
}

std::string WriteRtspRequest(const std::string& method,
                             const std::string& uri,
                             int cseq,
                             const std::vector<std::pair<std::string, std::string>>& headers,
                             const std::string& body) {
  std::string out = method + " " + uri + " RTSP/1.0\r\nCSeq: " + std::to_string(cseq) + "\r\n";
  AppendHeadersAndBody(headers, body, out);
  return out;
}

}  // namespace qz_rtsp_internal_server
