#include "protocol/rtsp_in_server/wire/qz_rtsp_tunnel.h"

#include <algorithm>
#include <cstring>

#include "protocol/rtsp_in_server/wire/qz_rtsp_lex.h"
#include "utility/qz_base64.h"

namespace qz_rtsp_internal_server {
namespace {

constexpr size_t kMaxHeaders = 64;
constexpr size_t kMaxCookie = 128;

bool IsVisible(const std::string& s) {
  return !s.empty() && std::all_of(s.begin(), s.end(), [](char c) {
    return static_cast<unsigned char>(c) > 32 && static_cast<unsigned char>(c) < 127;
  });
}

}  // namespace

TunnelSniff SniffTunnel(const char* data, size_t size) {
  for (const char* word : {"GET ", "POST "}) {
    const size_t n = std::min(size, std::strlen(word));
    if (std::memcmp(data, word, n) == 0) {
      return n == std::strlen(word) ? TunnelSniff::kHttp : TunnelSniff::kNeedMore;
    }
  }
  return size == 0 ? TunnelSniff::kNeedMore : TunnelSniff::kRtsp;
}

HttpTunnelHeadParser::Result HttpTunnelHeadParser::Fail(const char* why) {
  error_ = why;
  buffer_.clear();
  buffer_.shrink_to_fit();
  return state_ = Result::kBad;
}

HttpTunnelHeadParser::Result HttpTunnelHeadParser::Feed(const char* data, size_t size) {
  if (state_ != Result::kNeedMore) {
    return state_;
  }
  // The end of the head is found however the bytes were split; the head,
  // its blank line included, must fit in `max_bytes_` whatever they were.
  const size_t from = buffer_.size() < 3 ? 0 : buffer_.size() - 3;
  buffer_.append(data, size);
  const size_t end = std::min(buffer_.find("\r\n\r\n", from), buffer_.find("\n\n", from));
  if (end == std::string::npos) {
    return buffer_.size() >= max_bytes_ ? Fail("head too large") : Result::kNeedMore;
  }
  const size_t separator = buffer_.compare(end, 2, "\n\n") == 0 ? 2 : 4;
  if (end + separator > max_bytes_) {
    return Fail("head too large");
  }
  rest_ = buffer_.substr(end + separator);
  state_ = Parse(end);
  buffer_.clear();
  buffer_.shrink_to_fit();
  return state_;
}

HttpTunnelHeadParser::Result HttpTunnelHeadParser::Parse(size_t head_end) {
  int cookies = 0;
  size_t headers = 0;
  bool first = true;
  for (size_t start = 0; start < head_end;) {
    size_t lf = buffer_.find('\n', start);
    if (lf == std::string::npos || lf > head_end) {
      lf = head_end;
    }
    size_t stop = lf;
    if (stop > start && buffer_[stop - 1] == '\r') {
      --stop;
    }
    const std::string line = buffer_.substr(start, stop - start);
    start = lf + 1;
    if (std::any_of(line.begin(), line.end(), [](char c) { return lex::IsCtl(c); })) {
      return Fail("control character in the head");
    }
    if (first) {
      first = false;
      const size_t s1 = line.find(' ');
      const size_t s2 = s1 == std::string::npos ? s1 : line.find(' ', s1 + 1);
      if (s2 == std::string::npos) {
        return Fail("malformed request line");
      }
      const std::string method = line.substr(0, s1);
      head_.path = line.substr(s1 + 1, s2 - s1 - 1);
      const std::string version = line.substr(s2 + 1);
      if ((method != "GET" && method != "POST") || !IsVisible(head_.path) ||
          (version != "HTTP/1.0" && version != "HTTP/1.1")) {
        return Fail("not a tunnel's GET or POST");
      }
      head_.post = method == "POST";
      continue;
    }
    if (!line.empty() && lex::IsBlank(line[0])) {
      if (headers == 0) {
        return Fail("malformed header");
      }
      continue;  // a folded header: none the tunnel reads is folded
    }
    const size_t colon = line.find(':');
    if (colon == std::string::npos || colon == 0 || ++headers > kMaxHeaders) {
      return Fail(colon == std::string::npos || colon == 0 ? "malformed header"
                                                           : "too many headers");
    }
    if (lex::EqualsNoCase(lex::Trim(line.substr(0, colon)), "x-sessioncookie")) {
      head_.cookie = lex::Trim(line.substr(colon + 1));
      ++cookies;
    }
  }
  if (first) {
    return Fail("empty head");
  }
  if (cookies != 1 || head_.cookie.size() > kMaxCookie || !IsVisible(head_.cookie)) {
    return Fail("not exactly one good x-sessioncookie");
  }
  return Result::kDone;
}

bool Base64StreamDecoder::Decode(const char* data, size_t size, std::string& out) {
  for (size_t i = 0; i < size && !failed_; ++i) {
    const char c = data[i];
    if (c == ' ' || c == '\t' || c == '\r' || c == '\n') {
      continue;
    }
    if (c == '=') {
      // "xx==" and "xxx=" end a quantum whose bytes are already out.
      if (awaiting_pad_) {
        awaiting_pad_ = false;
      } else if (sextets_ == 2) {
        awaiting_pad_ = true;
        continue;
      } else if (sextets_ != 3) {
        failed_ = true;
        break;
      }
      bits_ = 0;
      sextets_ = 0;
      continue;
    }
    const int v = qz_utility::Base64Value(c);
    if (v < 0 || awaiting_pad_) {
      failed_ = true;
      break;
    }
    bits_ = (bits_ << 6) | static_cast<uint32_t>(v);
    ++sextets_;
    // Each byte goes out as soon as its last bit arrived.
    if (sextets_ == 2) {
      out.push_back(static_cast<char>((bits_ >> 4) & 0xFF));
    } else if (sextets_ == 3) {
      out.push_back(static_cast<char>((bits_ >> 2) & 0xFF));
    } else if (sextets_ == 4) {
      out.push_back(static_cast<char>(bits_ & 0xFF));
      bits_ = 0;
      sextets_ = 0;
    }
  }
  return !failed_;
}

std::string WriteHttpTunnelAnswer(int code) {
  const char* reason = code == 200   ? "OK"
                       : code == 403 ? "Forbidden"
                       : code == 503 ? "Service Unavailable"
                                     : "Bad Request";
  std::string out = "HTTP/1.0 " + std::to_string(code) + " " + reason + "\r\nServer: qz-rtsp\r\n";
  if (code == 200) {
    out +=
        "Connection: close\r\nCache-Control: no-store\r\nPragma: no-cache\r\n"
        "Content-Type: application/x-rtsp-tunnelled\r\n\r\n";
  } else {
    out += "Connection: close\r\nContent-Length: 0\r\n\r\n";
  }
  return out;
}

}  // namespace qz_rtsp_internal_server
