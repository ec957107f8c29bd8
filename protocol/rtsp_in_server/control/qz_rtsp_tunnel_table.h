// The HTTP tunnels of one server (wire/qz_rtsp_tunnel.h), by their
// x-sessioncookie: which GET half waits for its POST, and which POST came
// before its GET. A cookie names one tunnel at a time, and a POST joins
// only a GET from its own address, so that a cookie seen on the network
// cannot be used from elsewhere to send requests into another viewer's
// tunnel. The table holds no connection alive: both halves are weak, and a
// connection that registered a cookie forgets it when it closes. Network
// thread only.
#ifndef PROTOCOL_RTSP_IN_SERVER_CONTROL_QZ_RTSP_TUNNEL_TABLE_H_
#define PROTOCOL_RTSP_IN_SERVER_CONTROL_QZ_RTSP_TUNNEL_TABLE_H_

#include <map>
#include <memory>
#include <string>

#include "protocol/rtsp_in_server/control/qz_rtsp_client.h"

namespace qz_rtsp_internal_server {

class RtspTunnelTable {
 public:
  enum class Result {
    kOpened,        // GET: registered, its POST has not come yet
    kJoined,        // the two halves are paired: `*other` is the other one
    kWaiting,       // POST: its GET has not come yet; parked under the cookie
    kTaken,         // a live tunnel (or a parked POST) holds the cookie already
    kOtherAddress,  // POST: the GET of that cookie came from another address
  };

  // A GET names `cookie`. A POST parked under it from the GET's address
  // joins it; one from another address is forgotten (it stays unpaired
  // until its idle clock closes it).
  Result OpenGet(const std::string& cookie,
                 const std::shared_ptr<RtspClient>& get,
                 std::shared_ptr<RtspClient>* other);
  // A POST names `cookie`.
  Result JoinPost(const std::string& cookie,
                  const std::shared_ptr<RtspClient>& post,
                  std::shared_ptr<RtspClient>* other);
  // `client`, a half registered under `cookie`, closed: the cookie is free.
  void Forget(const std::string& cookie, const RtspClient* client);

  size_t size() const { return tunnels_.size(); }

 private:
  struct Tunnel {
    std::weak_ptr<RtspClient> get;
    std::weak_ptr<RtspClient> post;
  };

  std::map<std::string, Tunnel> tunnels_;
};

}  // namespace qz_rtsp_internal_server

#endif  // PROTOCOL_RTSP_IN_SERVER_CONTROL_QZ_RTSP_TUNNEL_TABLE_H_
