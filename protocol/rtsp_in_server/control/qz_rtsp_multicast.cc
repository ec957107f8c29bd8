#include "protocol/rtsp_in_server/control/qz_rtsp_multicast.h"

#include <algorithm>
#include <utility>

namespace qz_rtsp_internal_server {

std::string RtspMulticastConfig::FromOptions(const QZRtspServerOptions& o,
                                             RtspMulticastConfig* config) {
  asio::error_code ec;
  const asio::ip::address_v4 first = asio::ip::make_address_v4(o.multicast_first_group, ec);
  // 224.0.0.0/24 belongs to routing protocols and is never forwarded.
  if (ec || !first.is_multicast() || (first.to_uint() >> 8) == (0xE0000000u >> 8)) {
    return "multicast_first_group \"" + o.multicast_first_group +
           "\" is not an IPv4 multicast address (224.0.1.0 to 239.255.255.255)";
  }
  const unsigned long long last = first.to_uint() + static_cast<long long>(o.multicast_group_count);
  if (o.multicast_group_count < 1 || last - 1 > 0xEFFFFFFFull) {
    return "multicast_group_count " + std::to_string(o.multicast_group_count) +
           ": at least 1, and the range must end by 239.255.255.255";
  }
  const long long ports = 2LL * kTracksPerGroup * o.multicast_group_count;
  if (o.multicast_port < 1024 || o.multicast_port % 2 != 0 || o.multicast_port + ports > 65536) {
    return "multicast_port " + std::to_string(o.multicast_port) + ": even, from 1024, and its " +
           std::to_string(ports) + " ports (" + std::to_string(2 * kTracksPerGroup) +
           " per group) must end by 65535";
  }
  if (o.multicast_ttl < 1 || o.multicast_ttl > 255) {
    return "multicast_ttl " + std::to_string(o.multicast_ttl) + ": 1 to 255";
  }
  if (!o.bind_address.empty()) {
    const asio::ip::address at = asio::ip::make_address(o.bind_address, ec);
    if (!ec && at.is_v6() && !at.to_v6().is_v4_mapped()) {
      return "multicast is IPv4 only, and the server is bound to " + o.bind_address;
    }
  }
  config->first_group = first;
  config->groups = o.multicast_group_count;
  config->first_port = o.multicast_port;
  config->ttl = o.multicast_ttl;
  return std::string();
}

RtspMulticastGroups::RtspMulticastGroups(RtspMulticastConfig config, RtspRandom& random)
    : config_(config), random_(random), taken_(static_cast<size_t>(config.groups), false) {}

bool RtspMulticastGroups::Available(const RtspStream& stream) const {
  if (groups_.count(&stream) != 0) {
    return true;
  }
  return stream.track_count() <= RtspMulticastConfig::kTracksPerGroup &&
         std::find(taken_.begin(), taken_.end(), false) != taken_.end();
}

RtspMulticastGroup& RtspMulticastGroups::Join(RtspSession& session, int track, bool* made) {
  const RtspStream* stream = &session.stream();
  auto it = groups_.find(stream);
  *made = it == groups_.end();
  if (*made) {
    // Drawn at random, then the next free one (Available() said there is).
    const size_t count = taken_.size();
    size_t index = random_.Next32() % count;
    for (size_t tried = 1; taken_[index] && tried < count; ++tried) {
      index = (index + 1) % count;
    }
    taken_[index] = true;
    RtspMulticastGroup group;
    group.index = static_cast<int>(index);
    group.address =
        asio::ip::address_v4(config_.first_group.to_uint() + static_cast<uint32_t>(index));
    group.first_port = static_cast<uint16_t>(
        config_.first_port + 2 * RtspMulticastConfig::kTracksPerGroup * static_cast<int>(index));
    group.sender = std::make_shared<RtspSession>("multicast " + group.address.to_string(), nullptr,
                                                 session.shared_stream(), 0);
    group.sender->viewer = false;
    it = groups_.emplace(stream, std::move(group)).first;
  }
  RtspMulticastGroup& group = it->second;
  group.members.insert(&session);
  session.SetupMulticast(track, group.Rtp(track), group.Rtcp(track));
  return group;
}

RtspMulticastGroup* RtspMulticastGroups::Of(const RtspStream& stream) {
  auto it = groups_.find(&stream);
  return it == groups_.end() ? nullptr : &it->second;
}

std::shared_ptr<RtspSession> RtspMulticastGroups::Leave(RtspSession& session) {
  auto it = groups_.find(&session.stream());
  if (it == groups_.end() || it->second.members.erase(&session) == 0) {
    return nullptr;
  }
  if (!it->second.members.empty()) {
    Update(it->second);
    return nullptr;
  }
  std::shared_ptr<RtspSession> sender = std::move(it->second.sender);
  taken_[static_cast<size_t>(it->second.index)] = false;
  groups_.erase(it);
  return sender;
}

bool RtspMulticastGroups::Arrange(RtspMulticastGroup& group) {
  RtspSession& sender = *group.sender;
  bool any = false;
  for (size_t t = 0; t < sender.tracks().size(); ++t) {
    bool wanted = false;
    for (const RtspSession* member : group.members) {
      wanted = wanted || (member->playing() && member->tracks()[t].active);
    }
    RtspSessionTrack& track = sender.tracks()[t];
    if (wanted && !track.setup) {
      // Active at the sender's next Play(), video from a key frame.
      sender.SetupUdp(static_cast<int>(t), group.Rtp(static_cast<int>(t)),
                      group.Rtcp(static_cast<int>(t)));
    } else if (!wanted && track.setup) {
      track = RtspSessionTrack();
    }
    any = any || wanted;
  }
  return any;
}

std::vector<RtpInfoEntry> RtspMulticastGroups::Play(RtspSession& member,
                                                    const std::string& base_url,
                                                    bool gop_cache,
                                                    bool* wants_key_frame) {
  *wants_key_frame = false;
  RtspMulticastGroup* group = Of(member.stream());
  if (group == nullptr) {
    return {};
  }
  const bool joins = !member.playing();
  bool unused = false;
  member.Play(base_url, gop_cache, &unused);
  RtspSession& sender = *group->sender;
  const bool was_sending = sender.playing();
  Arrange(*group);
  sender.Play(base_url, gop_cache, wants_key_frame);
  const RtspStream& stream = member.stream();
  const int video = stream.video_track();
  if (was_sending && joins && video >= 0 && member.tracks()[static_cast<size_t>(video)].setup) {
    *wants_key_frame = true;
  }
  std::vector<RtpInfoEntry> info;
  for (int t = 0; t < stream.track_count() && !sender.waiting_key; ++t) {
    const RtspSessionTrack& track = sender.tracks()[static_cast<size_t>(t)];
    if (!member.tracks()[static_cast<size_t>(t)].setup || !track.active || track.wait_key) {
      continue;  // its first packet is not known yet
    }
    RtpInfoEntry e;
    e.url = base_url + "trackID=" + std::to_string(t);
    uint16_t seq = 0;
    uint32_t rtp_time = 0;
    if (stream.FirstPacketOf(t, sender.read_index, seq, rtp_time)) {
      e.seq = seq;
      e.rtptime = rtp_time;
    } else {
      e.seq = stream.NextSeq(t);  // its RTP time is not known before it is built
    }
    info.push_back(std::move(e));
  }
  return info;
}

void RtspMulticastGroups::Update(RtspMulticastGroup& group) {
  if (!Arrange(group) && group.sender->playing()) {
    group.sender->Pause();
  }
}

}  // namespace qz_rtsp_internal_server
