// Every session of a server: ids from the injected random source, which
// sessions read which stream, the multicast groups they share, expiry, and
// the routing of what clients send back over RTCP (UDP by the sender's
// address and port, TCP by connection and channel) to the session it
// belongs to. Network thread only, except count().
#ifndef PROTOCOL_RTSP_IN_SERVER_CONTROL_QZ_RTSP_SESSION_TABLE_H_
#define PROTOCOL_RTSP_IN_SERVER_CONTROL_QZ_RTSP_SESSION_TABLE_H_

#include <asio.hpp>
#include <atomic>
#include <map>
#include <memory>
#include <set>
#include <string>

#include "protocol/rtsp_in_server/control/qz_rtsp_multicast.h"
#include "protocol/rtsp_in_server/control/qz_rtsp_session.h"
#include "protocol/rtsp_in_server/media/qz_rtsp_seams.h"
#include "protocol/rtsp_in_server/net/qz_udp_demux.h"

namespace qz_rtsp_internal_server {

class RtspSessionTable {
 public:
  explicit RtspSessionTable(RtspRandom& random, RtspMulticastConfig multicast = {})
      : random_(random), multicast_(multicast, random) {}
  ~RtspSessionTable();

  // A new session of `client` on `stream` (Init state), with an id no
  // other session has: 64 random bits, so that ids cannot be guessed.
  std::shared_ptr<RtspSession> Create(const std::shared_ptr<RtspClient>& client,
                                      const std::shared_ptr<RtspStream>& stream,
                                      long long now_ms);
  // Ends the session: it leaves its stream, its connection and the routes.
  void Destroy(const std::string& id);
  std::shared_ptr<RtspSession> Find(const std::string& id) const;
  // The sessions that read `stream`: its viewers' and its multicast
  // group's sender.
  const std::set<RtspSession*>& SessionsOf(const RtspStream& stream) const;
  const std::map<std::string, std::shared_ptr<RtspSession>>& sessions() const { return sessions_; }
  // Any thread.
  int count() const { return count_.load(); }

  // SETUP of a UDP track: the client's ports route to the session.
  void SetupUdp(RtspSession& session,
                int track,
                const asio::ip::udp::endpoint& rtp,
                const asio::ip::udp::endpoint& rtcp);
  // SETUP of a multicast track: the session joins its stream's group (see
  // RtspMulticastGroups::Join), whose sender reads the stream from then on.
  const RtspMulticastGroup& SetupMulticast(RtspSession& session, int track);
  RtspMulticastGroups& multicast() { return multicast_; }
  // TEARDOWN of one track (see RtspSession::TeardownTrack), routes included.
  bool TeardownTrack(RtspSession& session, int track);

  // Ends the sessions nothing was heard of for longer than `timeout_ms`,
  // and the UDP ones whose client's ports stayed silent for longer than
  // `udp_silence_ms` (their connections stay). Returns how many ended.
  int Expire(long long now_ms, long long timeout_ms, long long udp_silence_ms);

  // A datagram a UDP client sent to either of the server's ports: it
  // renews the sender's session, its receiver reports feed the session's
  // reception figures, and a BYE ends a session that only uses UDP (a TCP
  // client ends with its connection or a TEARDOWN). False when no session
  // sends from there.
  bool OnUdpPacket(const asio::ip::udp::endpoint& from,
                   const uint8_t* data,
                   size_t size,
                   long long now_ms,
                   uint32_t arrival_compact_ntp);
  // An interleaved frame from a TCP client: the session that uses the
  // channel is renewed, and RTCP on an RTCP channel read as above (without
  // the BYE). Frames on channels no session uses are ignored.
  void OnInterleaved(RtspClient& client,
                     uint8_t channel,
                     const std::string& payload,
                     long long now_ms,
                     uint32_t arrival_compact_ntp);

 private:
  void Route(RtspSession& session, const RtspSessionTrack& track, bool add);
  void Unlist(RtspSession& session);
  static bool ReadRtcp(RtspSession& session,
                       const uint8_t* data,
                       size_t size,
                       uint32_t arrival_compact_ntp,
                       bool* bye);

  RtspRandom& random_;
  std::map<std::string, std::shared_ptr<RtspSession>> sessions_;
  std::map<const RtspStream*, std::set<RtspSession*>> by_stream_;
  UdpDemux udp_;
  RtspMulticastGroups multicast_;
  std::atomic<int> count_{0};
};

}  // namespace qz_rtsp_internal_server

#endif  // PROTOCOL_RTSP_IN_SERVER_CONTROL_QZ_RTSP_SESSION_TABLE_H_
