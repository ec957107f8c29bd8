#include "protocol/rtsp_in_server/qz_rtsp_server_mgr.h"

namespace qz_rtsp_internal_server {

QZRtspServerMgr* QZRtspServerMgr::Instance() {
  // Never destroyed: servers and sinkers may unregister from static
  // destructors of their own.
  static QZRtspServerMgr* instance = new QZRtspServerMgr();
  return instance;
}

bool QZRtspServerMgr::RegisterServer(void* handle, std::shared_ptr<QZRtspPipeAcceptor> acceptor) {
  if (handle == nullptr || !acceptor) {
    return false;
  }
  std::lock_guard<std::mutex> lock(mutex_);
  return servers_.emplace(handle, std::move(acceptor)).second;
}

void QZRtspServerMgr::UnregisterServer(void* handle) {
  std::shared_ptr<QZRtspPipeAcceptor> released;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = servers_.find(handle);
    if (it == servers_.end()) {
      return;
    }
    released = std::move(it->second);
    servers_.erase(it);
  }
  // `released` may be the last reference: let it go outside the lock.
}

bool QZRtspServerMgr::IsRegistered(void* handle) {
  std::lock_guard<std::mutex> lock(mutex_);
  return servers_.count(handle) != 0;
}

std::shared_ptr<QZRtspPipeAcceptor> QZRtspServerMgr::Find(void* handle) {
  std::lock_guard<std::mutex> lock(mutex_);
  auto it = servers_.find(handle);
  return it == servers_.end() ? nullptr : it->second;
}

bool QZRtspServerMgr::PostPiple(void* handle,
                                std::shared_ptr<QZRtspPacketPiple>& piple,
                                std::string* why) {
  std::string reason;
  bool accepted = false;
  if (!piple) {
    reason = "no pipe";
  } else if (std::shared_ptr<QZRtspPipeAcceptor> acceptor = Find(handle)) {
    accepted = acceptor->AcceptPiple(piple, reason);
  } else {
    reason = "no server is registered with this handle (never made, or destroyed)";
  }
  if (why != nullptr) {
    *why = reason;
  }
  return accepted;
}

void QZRtspServerMgr::RemovePiple(void* handle, std::shared_ptr<QZRtspPacketPiple>& piple) {
  if (!piple) {
    return;
  }
  if (std::shared_ptr<QZRtspPipeAcceptor> acceptor = Find(handle)) {
    acceptor->WithdrawPiple(piple);
  }
}

}  // namespace qz_rtsp_internal_server
