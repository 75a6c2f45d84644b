// CTORVThread.cpp - see CTORVThread.h.
#include "zarn/utils/CTORVThread.h"

#include <cstdlib>
#include <new>
#include <utility>

#include "keelbase/CAWThreadManager.h"
#include "keelbase/CAWTrace.h"

namespace zarn::utils {

using keelbase::AW_ERROR_FAILURE;
using keelbase::AW_OK;
using keelbase::AWResult;
using keelbase::CAWMessageBlock;

namespace {

keelbase::CAWThread* GetTaskThread() {
  auto* manager = keelbase::CAWThreadManager::Instance();
  return manager->GetThread(keelbase::CAWThreadManager::TT_TASK);
}

// A thread that could not be started when the receiver was made may be there by now.
template <class Event, class... Arguments>
unsigned long PostNew(keelbase::CAWThread* thread, Arguments&&... arguments) {
  if (thread == nullptr) thread = GetTaskThread();
  if (thread == nullptr) return AW_ERROR_FAILURE;
  try {
    return thread->GetEventQueue()->Post(new Event(std::forward<Arguments>(arguments)...), 1);
  } catch (const std::bad_alloc&) {
    return AW_ERROR_FAILURE;
  }
}

}  // namespace

CTORVThread::CTORVThread(ITORVSink* sink, void* arg)
    : sink_(sink), thread_(GetTaskThread()), arg_(arg) {}

CTORVThread::~CTORVThread() = default;

unsigned long CTORVThread::Init() { return AW_OK; }

void CTORVThread::OnInit() {
  if (sink_ != nullptr) sink_->OnInit(arg_);
}

void CTORVThread::OnMessage(CAWMessageBlock& mb, const unsigned short& number, void* context) {
  if (sink_ != nullptr) sink_->OnMessage(mb, number, context);
}

void CTORVThread::OnUnInit() {
  if (sink_ != nullptr) sink_->OnUnInit();
}

unsigned long CTORVThread::NotifyInitOk() { return PostNew<CTORVEventInit>(thread_, this); }

unsigned long CTORVThread::NotifyUnInit() { return PostNew<CTORVEventUnInit>(thread_, this); }

unsigned long CTORVThread::PostTORVMessage(CAWMessageBlock& mb, const unsigned short& number,
                                           void* context) {
  return PostNew<CTORVEventSendData>(thread_, this, mb, number, context);
}

unsigned long CTORVThread::RegisterTno(unsigned short tno, void* context) {
  try {
    return contexts_.try_emplace(tno, context).second ? AW_OK : AW_ERROR_FAILURE;
  } catch (const std::bad_alloc&) {
    return AW_ERROR_FAILURE;
  }
}

unsigned long CTORVThread::GetTno(unsigned short tno, void*& context) {
  const auto found = contexts_.find(tno);
  if (found == contexts_.end()) return AW_ERROR_FAILURE;
  context = found->second;
  return AW_OK;
}

unsigned long CTORVThread::UnRegisterTno(unsigned short tno) {
  if (contexts_.find(tno) != contexts_.end()) return AW_ERROR_FAILURE;
  char line[128];
  keelbase::CAWTextFormator text(line, sizeof line);
  text << "UnRegisterTno: Tno " << unsigned{tno} << " was never registered by this receiver";
  keelbase::IAWTraceManager::Instance()->Trace(0, text.View());
  std::abort();
}

// --- events ---

AWResult CTORVEventInit::OnEventFire() {
  receiver_->OnInit();
  return AW_OK;
}

CTORVEventInit::~CTORVEventInit() = default;

AWResult CTORVEventUnInit::OnEventFire() {
  receiver_->OnUnInit();
  return AW_OK;
}

CTORVEventUnInit::~CTORVEventUnInit() = default;

AWResult CTORVEventSendData::OnEventFire() {
  receiver_->OnMessage(*block_, number_, context_);
  return AW_OK;
}

CTORVEventSendData::~CTORVEventSendData() {
  if (block_ != nullptr) block_->DestroyChained();
}

}  // namespace zarn::utils
