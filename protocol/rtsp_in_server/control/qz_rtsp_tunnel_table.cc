#include "protocol/rtsp_in_server/control/qz_rtsp_tunnel_table.h"

#include "protocol/rtsp_in_server/net/qz_udp_demux.h"

namespace qz_rtsp_internal_server {
namespace {

// The half, while its connection is open.
std::shared_ptr<RtspClient> Live(const std::weak_ptr<RtspClient>& half) {
  std::shared_ptr<RtspClient> client = half.lock();
  return client && !client->closed() ? client : nullptr;
}

bool SameAddress(const RtspClient& a, const RtspClient& b) {
  // IPv4 clients of a dual-stack socket arrive as v4-mapped IPv6 addresses.
  return PlainAddress(a.remote().address()) == PlainAddress(b.remote().address());
}

}  // namespace

RtspTunnelTable::Result RtspTunnelTable::OpenGet(const std::string& cookie,
                                                 const std::shared_ptr<RtspClient>& get,
                                                 std::shared_ptr<RtspClient>* other) {
  Tunnel& tunnel = tunnels_[cookie];
  if (Live(tunnel.get)) {
    return Result::kTaken;
  }
  tunnel.get = get;
  std::shared_ptr<RtspClient> post = Live(tunnel.post);
  if (post && SameAddress(*post, *get)) {
    *other = post;
    return Result::kJoined;
  }
  tunnel.post.reset();
  return Result::kOpened;
}

RtspTunnelTable::Result RtspTunnelTable::JoinPost(const std::string& cookie,
                                                  const std::shared_ptr<RtspClient>& post,
                                                  std::shared_ptr<RtspClient>* other) {
  Tunnel& tunnel = tunnels_[cookie];
  if (Live(tunnel.post)) {
    return Result::kTaken;
  }
  std::shared_ptr<RtspClient> get = Live(tunnel.get);
  if (get && !SameAddress(*get, *post)) {
    return Result::kOtherAddress;
  }
  tunnel.post = post;
  if (!get) {
    return Result::kWaiting;
  }
  *other = get;
  return Result::kJoined;
}

void RtspTunnelTable::Forget(const std::string& cookie, const RtspClient* client) {
  auto it = tunnels_.find(cookie);
  if (it == tunnels_.end()) {
    return;
  }
  Tunnel& tunnel = it->second;
  // A half that was replaced or never registered leaves the tunnel alone.
  const bool get = tunnel.get.lock().get() == client;
  const bool post = tunnel.post.lock().get() == client;
  if (get) {
    tunnel.get.reset();
  }
  if (post) {
    tunnel.post.reset();
  }
  if (!Live(tunnel.get) && !Live(tunnel.post)) {
    tunnels_.erase(it);
  }
}

}  // namespace qz_rtsp_internal_server
