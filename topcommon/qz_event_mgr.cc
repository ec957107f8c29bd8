#include "topcommon/qz_event_mgr.h"

#include <new>

namespace QZ_NAMESPACE {
namespace {

// An application that never takes its events out must not make the
// publisher grow without limit: past this many, the oldest is discarded.
constexpr size_t kMaxPendingEvents = 1024;

}  // namespace

EventMgr::EventMgr() : is_running_(false) {}

EventMgr::~EventMgr() {
  ClearEvents();
}

bool EventMgr::Init() {
  qz_utility::QZCAutoLock lock(event_mutex_);
  is_running_ = true;
  return true;
}

bool EventMgr::UnInit() {
  {
    qz_utility::QZCAutoLock lock(event_mutex_);
    is_running_ = false;
  }
  ClearEvents();
  return true;
}

void EventMgr::AddEvent(QZ_UINT32 id) {
  AddEvent(id, 0, 0, std::string(), std::string(), nullptr);
}

void EventMgr::AddEvent(QZ_UINT32 id, QZ_UINT64 param1, QZ_UINT64 param2) {
  AddEvent(id, param1, param2, std::string(), std::string(), nullptr);
}

void EventMgr::AddEvent(QZ_UINT32 id,
                        QZ_UINT64 param1,
                        QZ_UINT64 param2,
                        const std::string& param3,
                        const std::string& param4,
                        QZ_PVOID param5) {
  InnerEvent* event = new (std::nothrow) InnerEvent();
  if (event == nullptr) {
    return;
  }
  event->id_ = id;
  event->param1_ = param1;
  event->param2_ = param2;
  event->param3_ = param3;
  event->param4_ = param4;
  event->param5_ = param5;
  InnerEvent* discarded = nullptr;
  {
    qz_utility::QZCAutoLock lock(event_mutex_);
    if (elist_.size() >= kMaxPendingEvents) {
      discarded = elist_.front();
      elist_.pop_front();
    }
    elist_.push_back(event);
  }
  delete discarded;
}

InnerEvent* EventMgr::PopEvent() {
  qz_utility::QZCAutoLock lock(event_mutex_);
  if (elist_.empty()) {
    return nullptr;
  }
  InnerEvent* event = elist_.front();
  elist_.pop_front();
  return event;
}

void EventMgr::DeleteEvent(InnerEvent*& event) {
  delete event;
  event = nullptr;
}

void EventMgr::ClearEvents() {
  std::list<InnerEvent*> pending;
  {
    qz_utility::QZCAutoLock lock(event_mutex_);
    pending.swap(elist_);
  }
  for (InnerEvent* event : pending) {
    delete event;
  }
}

}  // namespace QZ_NAMESPACE
