#include "protocol/rtsp_in_server/net/qz_udp_sink.h"

namespace qz_rtsp_internal_server {

SocketUdpSink::SocketUdpSink(asio::ip::udp::socket& rtp,
                             asio::ip::udp::socket& rtcp,
                             bool gso,
                             asio::ip::udp::socket* multicast)
    : rtcp_(rtcp),
      v6_(rtp.local_endpoint().protocol() == asio::ip::udp::v6()),
      gso_(gso),
      batch_(rtp.native_handle(),
             &gso_,
             [this](void* tag, size_t size, bool sent) { Report(tag, size, sent); }),
      multicast_(multicast),
      multicast_gso_(gso) {
  if (multicast_ != nullptr) {
    multicast_batch_ = std::make_unique<UdpBatch>(
        multicast_->native_handle(), &multicast_gso_,
        [this](void* tag, size_t size, bool sent) { Report(tag, size, sent); });
  }
}

asio::ip::udp::endpoint SocketUdpSink::Destination(const asio::ip::udp::endpoint& to) const {
  if (v6_ && to.address().is_v4()) {
    return asio::ip::udp::endpoint(
        asio::ip::make_address_v6(asio::ip::v4_mapped, to.address().to_v4()), to.port());
  }
  return to;
}

void SocketUdpSink::Add(const asio::ip::udp::endpoint& to,
                        const uint8_t* data,
                        size_t size,
                        void* tag) {
  if (!to.address().is_multicast()) {
    batch_.Add(Destination(to), data, size, tag);
  } else if (multicast_batch_) {
    multicast_batch_->Add(to, data, size, tag);
  } else {
    Report(tag, size, false);
  }
}

void SocketUdpSink::Flush() {
  batch_.Flush();
  if (multicast_batch_) {
    multicast_batch_->Flush();
  }
}

void SocketUdpSink::SendRtcp(const asio::ip::udp::endpoint& to,
                             const uint8_t* data,
                             size_t size,
                             void* tag) {
  asio::error_code ec;
  if (!to.address().is_multicast()) {
    rtcp_.send_to(asio::buffer(data, size), Destination(to), 0, ec);
  } else if (multicast_ != nullptr) {
    multicast_->send_to(asio::buffer(data, size), to, 0, ec);
  } else {
    ec = asio::error::address_family_not_supported;
  }
  Report(tag, size, !ec);
}

}  // namespace qz_rtsp_internal_server
