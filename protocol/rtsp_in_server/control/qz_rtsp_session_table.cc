#include "protocol/rtsp_in_server/control/qz_rtsp_session_table.h"

#include <cstdio>
#include <vector>

namespace qz_rtsp_internal_server {

RtspSessionTable::~RtspSessionTable() {
  while (!sessions_.empty()) {
    Destroy(sessions_.begin()->first);
  }
}

std::shared_ptr<RtspSession> RtspSessionTable::Create(const std::shared_ptr<RtspClient>& client,
                                                      const std::shared_ptr<RtspStream>& stream,
                                                      long long now_ms) {
  std::string id;
  do {
    char text[17];
    snprintf(text, sizeof(text), "%016llX", static_cast<unsigned long long>(random_.Next64()));
    id = text;
  } while (sessions_.count(id) != 0);
  auto session = std::make_shared<RtspSession>(id, client, stream, now_ms);
  stream->AddReader(session.get());
  by_stream_[stream.get()].insert(session.get());
  sessions_[id] = session;
  client->sessions()[id] = session;
  count_ = static_cast<int>(sessions_.size());
  return session;
}

void RtspSessionTable::Destroy(const std::string& id) {
  auto it = sessions_.find(id);
  if (it == sessions_.end()) {
    return;
  }
  std::shared_ptr<RtspSession> session = it->second;
  sessions_.erase(it);
  Unlist(*session);
  if (session->multicast()) {
    if (std::shared_ptr<RtspSession> sender = multicast_.Leave(*session)) {
      Unlist(*sender);  // the group is gone with its last member
      sender->End();
    }
  }
  for (const RtspSessionTrack& track : session->tracks()) {
    Route(*session, track, false);
  }
  if (auto client = session->client()) {
    client->sessions().erase(id);
  }
  session->End();
  count_ = static_cast<int>(sessions_.size());
}

std::shared_ptr<RtspSession> RtspSessionTable::Find(const std::string& id) const {
  auto it = sessions_.find(id);
  return it == sessions_.end() ? nullptr : it->second;
}

void RtspSessionTable::Unlist(RtspSession& session) {
  session.stream().RemoveReader(&session);
  auto readers = by_stream_.find(&session.stream());
  readers->second.erase(&session);
  if (readers->second.empty()) {
    by_stream_.erase(readers);
  }
}

const std::set<RtspSession*>& RtspSessionTable::SessionsOf(const RtspStream& stream) const {
  static const std::set<RtspSession*> kNone;
  auto it = by_stream_.find(&stream);
  return it == by_stream_.end() ? kNone : it->second;
}

void RtspSessionTable::Route(RtspSession& session, const RtspSessionTrack& track, bool add) {
  if (!track.setup || track.tcp || session.multicast()) {
    return;
  }
  for (const asio::ip::udp::endpoint& from : {track.rtp_endpoint, track.rtcp_endpoint}) {
    if (add) {
      udp_.Add(from, session.id());
    } else {
      udp_.Remove(from, session.id());
    }
  }
}

void RtspSessionTable::SetupUdp(RtspSession& session,
                                int track,
                                const asio::ip::udp::endpoint& rtp,
                                const asio::ip::udp::endpoint& rtcp) {
  Route(session, session.tracks()[static_cast<size_t>(track)], false);
  session.SetupUdp(track, rtp, rtcp);
  Route(session, session.tracks()[static_cast<size_t>(track)], true);
}

const RtspMulticastGroup& RtspSessionTable::SetupMulticast(RtspSession& session, int track) {
  bool made = false;
  RtspMulticastGroup& group = multicast_.Join(session, track, &made);
  if (made) {
    session.stream().AddReader(group.sender.get());
    by_stream_[&session.stream()].insert(group.sender.get());
  }
  return group;
}

bool RtspSessionTable::TeardownTrack(RtspSession& session, int track) {
  if (track < 0 || track >= static_cast<int>(session.tracks().size())) {
    return false;
  }
  const RtspSessionTrack before = session.tracks()[static_cast<size_t>(track)];
  if (!session.TeardownTrack(track)) {
    return false;
  }
  Route(session, before, false);
  // Another track may share the client's ports: keep its routes.
  for (const RtspSessionTrack& other : session.tracks()) {
    Route(session, other, true);
  }
  if (RtspMulticastGroup* group = session.multicast() ? multicast_.Of(session.stream()) : nullptr) {
    multicast_.Update(*group);
  }
  return true;
}

int RtspSessionTable::Expire(long long now_ms, long long timeout_ms, long long udp_silence_ms) {
  std::vector<std::string> expired;
  for (const auto& entry : sessions_) {
    if (now_ms - entry.second->last_activity_ms() > timeout_ms ||
        entry.second->UdpSilent(now_ms, udp_silence_ms)) {
      expired.push_back(entry.first);
    }
  }
  for (const std::string& id : expired) {
    Destroy(id);
  }
  return static_cast<int>(expired.size());
}

bool RtspSessionTable::ReadRtcp(RtspSession& session,
                                const uint8_t* data,
                                size_t size,
                                uint32_t arrival_compact_ntp,
                                bool* bye) {
  RtcpReceived rtcp;
  if (!ParseRtcp(data, size, rtcp)) {
    return false;  // a NAT keep-alive, or RTP sent back
  }
  for (const RtcpReportBlock& block : rtcp.blocks) {
    session.OnReportBlock(block, arrival_compact_ntp);
  }
  *bye = rtcp.bye;
  return true;
}

bool RtspSessionTable::OnUdpPacket(const asio::ip::udp::endpoint& from,
                                   const uint8_t* data,
                                   size_t size,
                                   long long now_ms,
                                   uint32_t arrival_compact_ntp) {
  const std::string* id = udp_.Find(from);
  if (id == nullptr) {
    return false;
  }
  std::shared_ptr<RtspSession> session = Find(*id);
  if (!session) {
    return false;
  }
  session->Touch(now_ms);
  session->HeardOverUdp(now_ms);
  bool bye = false;
  if (ReadRtcp(*session, data, size, arrival_compact_ntp, &bye) && bye && !session->HasTcpTrack()) {
    Destroy(session->id());
  }
  return true;
}

void RtspSessionTable::OnInterleaved(RtspClient& client,
                                     uint8_t channel,
                                     const std::string& payload,
                                     long long now_ms,
                                     uint32_t arrival_compact_ntp) {
  for (auto& entry : client.sessions()) {
    RtspSession& session = *entry.second;
    const int track = session.TrackOfChannel(channel);
    if (track < 0) {
      continue;
    }
    session.Touch(now_ms);
    if (channel == session.tracks()[static_cast<size_t>(track)].rtcp_channel) {
      bool bye = false;
      ReadRtcp(session, reinterpret_cast<const uint8_t*>(payload.data()), payload.size(),
               arrival_compact_ntp, &bye);
    }
  }
}

}  // namespace qz_rtsp_internal_server
