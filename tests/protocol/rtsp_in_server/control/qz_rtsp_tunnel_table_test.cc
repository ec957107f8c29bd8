// The pairing of HTTP tunnel halves by cookie. The halves over real sockets
// are in qz_rtsp_server_test.cc.
#include "protocol/rtsp_in_server/control/qz_rtsp_tunnel_table.h"

#include <memory>
#include <string>
#include <vector>

#include "gtest/gtest.h"
#include "tests/fakes/fake_rtsp_core.h"

namespace qz_rtsp_internal_server {
namespace {

using qz_test::FakeClient;
using qz_test::FakeRtspCore;
using Result = RtspTunnelTable::Result;

// Steps on one table: a GET or a POST of client `who` naming `cookie` (and
// the other half it is paired with, -1 for none), or client `who` closing.
struct Step {
  char op;  // 'G', 'P', or 'X' (closes and forgets `cookie`)
  const char* cookie;
  int who;
  Result want = Result::kOpened;
  int other = -1;
};

TEST(TunnelTableTest, HalvesPairByCookieOnlyFromOneAddress) {
  FakeRtspCore server;
  // 0-3 from 10.0.0.1, 4-6 from 10.0.0.2.
  std::vector<std::shared_ptr<FakeClient>> c;
  for (int i = 0; i < 7; ++i) {
    c.push_back(server.Connect(static_cast<uint16_t>(50000 + i), i < 4 ? "10.0.0.1" : "10.0.0.2"));
  }
  const Step steps[] = {
      {'G', "a", 0, Result::kOpened},
      {'G', "a", 1, Result::kTaken},         // a second GET of a live tunnel
      {'P', "a", 4, Result::kOtherAddress},  // the cookie, used from elsewhere
      {'P', "a", 2, Result::kJoined, 0},
      {'P', "a", 3, Result::kTaken},  // a second POST
      // The pair closes: the cookie is free again.
      {'X', "a", 0},
      {'X', "a", 2},
      {'G', "a", 1, Result::kOpened},
      // A POST before its GET waits for it, from its own address only.
      {'P', "b", 3, Result::kWaiting},
      {'P', "b", 4, Result::kTaken},
      {'G', "b", 5, Result::kOpened},  // the POST from 10.0.0.1 is dropped
      {'P', "c", 4, Result::kWaiting},
      {'G', "c", 6, Result::kJoined, 4},
  };
  RtspTunnelTable& table = server.core().tunnels();
  for (const Step& step : steps) {
    const std::string where = std::string(1, step.op) + step.cookie + std::to_string(step.who);
    if (step.op == 'X') {
      c[step.who]->Close();
      table.Forget(step.cookie, c[step.who].get());
      continue;
    }
    std::shared_ptr<RtspClient> other;
    const Result got = step.op == 'G' ? table.OpenGet(step.cookie, c[step.who], &other)
                                      : table.JoinPost(step.cookie, c[step.who], &other);
    EXPECT_EQ(static_cast<int>(got), static_cast<int>(step.want)) << where;
    EXPECT_EQ(other.get(), step.other < 0 ? nullptr : c[step.other].get()) << where;
  }
  // A GET that closed holds its cookie no more, even before it forgets it;
  // its late Forget leaves the tunnel that took the cookie alone.
  auto first = server.Connect(50010, "10.0.0.1"), second = server.Connect(50011, "10.0.0.1");
  std::shared_ptr<RtspClient> other;
  EXPECT_EQ(table.OpenGet("d", first, &other), Result::kOpened);
  first->Close();
  EXPECT_EQ(table.OpenGet("d", second, &other), Result::kOpened);
  table.Forget("d", first.get());
  EXPECT_EQ(table.OpenGet("d", c[1], &other), Result::kTaken);
  // Once every half closed and forgot, nothing is left.
  c.push_back(second);
  for (auto& client : c) {
    client->Close();
    for (const char* cookie : {"a", "b", "c", "d"}) {
      table.Forget(cookie, client.get());
    }
  }
  EXPECT_EQ(table.size(), 0u);
}

// How a paired POST half counts for the idle limit and for admission is in
// qz_rtsp_core_test.cc, with the other connections' clocks.

}  // namespace
}  // namespace qz_rtsp_internal_server
