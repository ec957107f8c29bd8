// The application's event manager: sinks post events from their threads,
// the application takes them out on its own.
#ifndef TOPCOMMON_QZ_EVENT_MGR_H_
#define TOPCOMMON_QZ_EVENT_MGR_H_

#include <list>
#include <string>

#include "topcommon/qz_type_define.h"
#include "utility/qz_cmutex.h"

namespace QZ_NAMESPACE {

struct InnerEvent {
  InnerEvent() : id_(0), param1_(0), param2_(0), param5_(nullptr) {}
  QZ_UINT32 id_;
  QZ_UINT64 param1_;
  QZ_UINT64 param2_;
  std::string param3_;
  std::string param4_;
  QZ_PVOID param5_;
};

// A locked FIFO of events. AddEvent copies its arguments and returns at once;
// PopEvent hands the oldest event to the caller, who frees it with
// DeleteEvent. Events are queued whether or not Init was called; UnInit
// discards the pending ones.
class EventMgr {
 public:
  EventMgr();
  ~EventMgr();

  EventMgr(const EventMgr&) = delete;
  EventMgr& operator=(const EventMgr&) = delete;

  bool Init();
  bool UnInit();

  void AddEvent(QZ_UINT32 id);
  void AddEvent(QZ_UINT32 id, QZ_UINT64 param1, QZ_UINT64 param2);
  void AddEvent(QZ_UINT32 id,
                QZ_UINT64 param1,
                QZ_UINT64 param2,
                const std::string& param3,
                const std::string& param4,
                QZ_PVOID param5);

  // The oldest pending event, or null. The caller owns it.
  InnerEvent* PopEvent();
  // Frees an event returned by PopEvent and nulls the caller's pointer.
  void DeleteEvent(InnerEvent*& event);

 private:
  void ClearEvents();

  std::list<InnerEvent*> elist_;  // guarded by event_mutex_
  qz_utility::QZCMutex event_mutex_;
  bool is_running_;  // guarded by event_mutex_
};

}  // namespace QZ_NAMESPACE

#endif  // TOPCOMMON_QZ_EVENT_MGR_H_
