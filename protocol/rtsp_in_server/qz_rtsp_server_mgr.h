// The process-wide registry that connects RTSP server handles with the pipes
// that publishers offer them.
#ifndef PROTOCOL_RTSP_IN_SERVER_QZ_RTSP_SERVER_MGR_H_
#define PROTOCOL_RTSP_IN_SERVER_QZ_RTSP_SERVER_MGR_H_

#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "protocol/rtsp_in_server/qz_rtsp_packet_pipe.h"

namespace qz_rtsp_internal_server {

// What a server offers the registry. Called on publisher threads (the
// sinker's send thread, or the thread that stops it), never under the
// registry's lock.
class QZRtspPipeAcceptor {
 public:
  virtual ~QZRtspPipeAcceptor() = default;
  // True when the server serves the pipe from now on and holds its own
  // reference to it; false when it refuses (stopped, a stream of that name
  // is already live, a name that is no URL path segment), with the reason
  // in `why`.
  virtual bool AcceptPiple(const std::shared_ptr<QZRtspPacketPiple>& piple, std::string& why) = 0;
  // Stops serving the pipe and lets go of it; unknown pipes are ignored.
  virtual void WithdrawPiple(const std::shared_ptr<QZRtspPacketPiple>& piple) = 0;
};

class QZRtspServerMgr {
 public:
  static QZRtspServerMgr* Instance();

  QZRtspServerMgr(const QZRtspServerMgr&) = delete;
  QZRtspServerMgr& operator=(const QZRtspServerMgr&) = delete;

  // Registers `acceptor` under `handle`. False for a null handle or acceptor,
  // or a handle already registered.
  bool RegisterServer(void* handle, std::shared_ptr<QZRtspPipeAcceptor> acceptor);
  // Forgets `handle`. A call into its acceptor already under way finishes;
  // acceptors must refuse pipes once their server has stopped.
  void UnregisterServer(void* handle);
  bool IsRegistered(void* handle);

  // Offers the pipe to the server of `handle`: false for an unknown handle
  // or when the server refuses.
  // False when no server has that handle or it refused the pipe; `why`
  // (when given) then says which and why.
  bool PostPiple(void* handle,
                 std::shared_ptr<QZRtspPacketPiple>& piple,
                 std::string* why = nullptr);
  // Withdraws the pipe from the server of `handle`; nothing for an unknown one.
  void RemovePiple(void* handle, std::shared_ptr<QZRtspPacketPiple>& piple);

 private:
  QZRtspServerMgr() = default;
  std::shared_ptr<QZRtspPipeAcceptor> Find(void* handle);

  std::mutex mutex_;  // guards servers_
  std::map<void*, std::shared_ptr<QZRtspPipeAcceptor>> servers_;
};

}  // namespace qz_rtsp_internal_server

#endif  // PROTOCOL_RTSP_IN_SERVER_QZ_RTSP_SERVER_MGR_H_
