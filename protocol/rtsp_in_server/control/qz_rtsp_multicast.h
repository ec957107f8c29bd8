// Multicast delivery (RFC 2326 12.39), IPv4 only. Every stream that
// multicast viewers play has one group: an address from the configured
// range, a port pair per track, and a sender, a session of the server's own
// that reads the stream's ring like a viewer and that the fan-out sends to
// the group's ports, so that each packet leaves once whatever the number of
// viewers. The viewers' sessions are the group's members: they hold no read
// position and send nothing themselves. The group sends while any member
// plays, the tracks that playing members set up, and goes with its last
// member. Network thread only.
#ifndef PROTOCOL_RTSP_IN_SERVER_CONTROL_QZ_RTSP_MULTICAST_H_
#define PROTOCOL_RTSP_IN_SERVER_CONTROL_QZ_RTSP_MULTICAST_H_

#include <asio.hpp>
#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "protocol/rtsp_in_server/control/qz_rtsp_session.h"
#include "protocol/rtsp_in_server/media/qz_rtsp_seams.h"
#include "protocol/rtsp_in_server/qz_rtsp_server.h"

namespace qz_rtsp_internal_server {

struct RtspMulticastConfig {
  // Ports a group takes: an RTP/RTCP pair for video and one for audio.
  static constexpr int kTracksPerGroup = 2;

  asio::ip::address_v4 first_group;
  int groups = 0;  // 0: no multicast
  int first_port = 0;
  int ttl = 0;

  // The multicast options of `options`, checked: "" and `*config` filled
  // when they can be served, else why not.
  static std::string FromOptions(const QZRtspServerOptions& options, RtspMulticastConfig* config);
};

struct RtspMulticastGroup {
  int index = -1;  // in the configured range
  asio::ip::address_v4 address;
  uint16_t first_port = 0;  // track t's RTP goes to first_port + 2t, RTCP to the next
  std::shared_ptr<RtspSession> sender;
  std::set<RtspSession*> members;

  asio::ip::udp::endpoint Rtp(int track) const {
    return asio::ip::udp::endpoint(address, static_cast<uint16_t>(first_port + 2 * track));
  }
  asio::ip::udp::endpoint Rtcp(int track) const {
    return asio::ip::udp::endpoint(address, static_cast<uint16_t>(first_port + 2 * track + 1));
  }
};

class RtspMulticastGroups {
 public:
  RtspMulticastGroups(RtspMulticastConfig config, RtspRandom& random);

  const RtspMulticastConfig& config() const { return config_; }
  // Whether a multicast viewer of `stream` can join: the stream has its
  // group, or an address of the range is free for one.
  bool Available(const RtspStream& stream) const;
  // SETUP of `track` by `session` as multicast: the session joins its
  // stream's group, which is made now when it is the stream's first
  // (`*made`; its address is drawn at random among the free ones, so that
  // two servers on one network seldom take the same). Available() first.
  RtspMulticastGroup& Join(RtspSession& session, int track, bool* made);
  // The group of `stream`, or null.
  RtspMulticastGroup* Of(const RtspStream& stream);
  // `session` ends. Returns the group's sender when the session was its
  // last member: the group is gone and its address free again.
  std::shared_ptr<RtspSession> Leave(RtspSession& session);

  // A member's PLAY: it plays, and the group sends its tracks. A group
  // that was not sending starts like a unicast viewer (at the latest key
  // frame with `gop_cache`, else at the next one). One that was goes on
  // unchanged for the others: the newcomer gets what it sends from now on,
  // its picture from the next key frame, which is asked for
  // (`*wants_key_frame`): replaying the cached pictures to the group would
  // show them again to every other viewer. Returns the RTP-Info entries of
  // the member's tracks: the group's next packet of each.
  std::vector<RtpInfoEntry> Play(RtspSession& member,
                                 const std::string& base_url,
                                 bool gop_cache,
                                 bool* wants_key_frame);
  // A member paused or tore a track down: the group sends only the tracks
  // that playing members set up, and nothing once none plays.
  void Update(RtspMulticastGroup& group);

  const std::map<const RtspStream*, RtspMulticastGroup>& groups() const { return groups_; }

 private:
  // The sender's tracks become the ones playing members set up; true when
  // there is any.
  bool Arrange(RtspMulticastGroup& group);

  RtspMulticastConfig config_;
  RtspRandom& random_;
  std::vector<bool> taken_;  // by group index
  std::map<const RtspStream*, RtspMulticastGroup> groups_;
};

}  // namespace qz_rtsp_internal_server

#endif  // PROTOCOL_RTSP_IN_SERVER_CONTROL_QZ_RTSP_MULTICAST_H_
