// CTORVManager.cpp - see CTORVManager.h.
#include "zarn/utils/CTORVManager.h"

#include <memory>
#include <new>

#include "TorvLock.h"
#include "keelbase/CAWSingleton.h"

namespace zarn::utils {

using keelbase::AW_ERROR_FAILURE;
using keelbase::AW_OK;
using keelbase::AWResult;
using keelbase::CAWMessageBlock;

namespace {

using Singleton = keelbase::CAWSingletonT<CTORVManager>;

// The receivers of the manager that the clean-up chain has destroyed, kept where a leak checker
// sees that they are no leak.
std::vector<CTORVThread*>& KeptReceivers() {
  static auto& kept = *new std::vector<CTORVThread*>;
  return kept;
}

}  // namespace

constinit keelbase::CAWMutexThread torvMutex;

bool IsTorvManager(const CTORVManager* manager) { return Singleton::IsInstance(manager); }

CTORVManager* CTORVManager::Instance() { return Singleton::Instance(); }

// Made here so that the destructor needs no memory.
CTORVManager::CTORVManager() { KeptReceivers(); }

// The chain destroys one manager; a later one stays to the end. The lock is had when the calls that
// have found this one are through.
CTORVManager::~CTORVManager() {
  const TorvLock lock;
  KeptReceivers().swap(receivers_);
}

AWResult CTORVManager::TORVInit(ITORVSink* sink, void* arg) {
  if (sink == nullptr) return AW_ERROR_FAILURE;
  const TorvLock lock;
  try {
    auto receiver = std::make_unique<CTORVThread>(sink, arg);
    if (receiver->Init() != AW_OK) return AW_ERROR_FAILURE;
    receivers_.push_back(receiver.get());
    static_cast<void>(receiver.release());  // lives to the end of the process
  } catch (const std::bad_alloc&) {
    return AW_ERROR_FAILURE;
  }
  return AW_OK;
}

AWResult CTORVManager::TORVRegisterTno(ITORVSink* sink, unsigned short tno, void* context) {
  const TorvLock lock;
  for (CTORVThread* receiver : receivers_) {
    if (receiver->GetSink() == sink) receiver->RegisterTno(tno, context);
  }
  return AW_OK;
}

AWResult CTORVManager::TORVUnRegisterTno(ITORVSink* sink, unsigned short tno) {
  const TorvLock lock;
  for (CTORVThread* receiver : receivers_) {
    if (receiver->GetSink() == sink) receiver->UnRegisterTno(tno);
  }
  return AW_OK;
}

AWResult CTORVManager::SendTORVMessage(CAWMessageBlock& mb, unsigned short number) {
  const TorvLock lock;
  for (CTORVThread* receiver : receivers_) receiver->PostTORVMessage(mb, number, nullptr);
  return AW_OK;
}

AWResult CTORVManager::SendTORVMessage(CAWMessageBlock& mb, unsigned short number,
                                       unsigned short tno) {
  const TorvLock lock;
  for (CTORVThread* receiver : receivers_) {
    void* context = nullptr;
    if (receiver->GetTno(tno, context) == AW_OK) receiver->PostTORVMessage(mb, number, context);
  }
  return AW_OK;
}

AWResult CTORVManager::NotifyTORVInitEnd() {
  const TorvLock lock;
  for (CTORVThread* receiver : receivers_) receiver->NotifyInitOk();
  return AW_OK;
}

AWResult CTORVManager::NotifyTORVUnInit() {
  const TorvLock lock;
  for (CTORVThread* receiver : receivers_) receiver->NotifyUnInit();
  return AW_OK;
}

}  // namespace zarn::utils
