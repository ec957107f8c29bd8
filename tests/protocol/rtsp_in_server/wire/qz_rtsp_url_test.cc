#include "protocol/rtsp_in_server/wire/qz_rtsp_url.h"

#include <string>

#include "gtest/gtest.h"

namespace qz_rtsp_internal_server {
namespace {

// Each URL as "tls|user|password|host|port|path", or "bad".
TEST(RtspUrlTest, Parse) {
  const struct {
    const char* text;
    const char* parsed;
    const char* without_credentials;
  } cases[] = {
      {"rtsp://relay:8554/phone", "0|||relay|8554|/phone", "rtsp://relay:8554/phone"},
      {"RTSP://relay/live/cam1?x=1", "0|||relay|554|/live/cam1?x=1",
       "rtsp://relay:554/live/cam1?x=1"},
      {"rtsps://relay", "1|||relay|322|/", "rtsps://relay:322/"},
      {"rtsp://u:p@10.0.0.2:1/a", "0|u|p|10.0.0.2|1|/a", "rtsp://10.0.0.2:1/a"},
      // Escapes in the credentials; a password holding '@' and ':'.
      {"rtsp://us%20er:p%40ss:w@h/a", "0|us er|p@ss:w|h|554|/a", "rtsp://h:554/a"},
      {"rtsp://user@h/a", "0|user||h|554|/a", "rtsp://h:554/a"},
      {"rtsp://[2001:db8::1]:8554/p", "0|||2001:db8::1|8554|/p", "rtsp://[2001:db8::1]:8554/p"},
      {"rtsp://u:p@[::1]/p", "0|u|p|::1|554|/p", "rtsp://[::1]:554/p"},
      {"http://relay/p", "bad", ""},
      {"rtsp:///p", "bad", ""},
      {"rtsp://u:p@/p", "bad", ""},
      {"rtsp://h:0/p", "bad", ""},
      {"rtsp://h:65536/p", "bad", ""},
      {"rtsp://h:/p", "bad", ""},
      {"rtsp://h:12ab/p", "bad", ""},
      {"rtsp://[::1/p", "bad", ""},
      {"rtsp://[::1]x/p", "bad", ""},
      {"rtsp://h/p q", "bad", ""},
      {"rtsp://u:p%0d%0aX@h/p", "bad", ""},  // a line break into a header
      {"rtsp://u:p%4@h/p", "bad", ""},
  };
  for (const auto& c : cases) {
    RtspUrl url;
    std::string got = "bad";
    if (ParseRtspUrl(c.text, url)) {
      got = std::to_string(url.tls) + "|" + url.user + "|" + url.password + "|" + url.host + "|" +
            std::to_string(url.port) + "|" + url.path;
      EXPECT_EQ(url.WithoutCredentials(), c.without_credentials) << c.text;
    }
    EXPECT_EQ(got, c.parsed) << c.text;
  }
}

}  // namespace
}  // namespace qz_rtsp_internal_server
