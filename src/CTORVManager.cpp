// CTORVManager.cpp - see CTORVManager.h.
#include "zarn/utils/CTORVManager.h"

#include <memory>
#include <new>

#include "LockForCall.h"
#include "TorvCalls.h"
#include "keelbase/CAWSingleton.h"

namespace zarn::utils {

using keelbase::AW_ERROR_FAILURE;
using keelbase::AW_OK;
using keelbase::AWResult;
using keelbase::CAWMessageBlock;

namespace {

using Lock = LockForCall<keelbase::CAWMutexThread>;

// The receivers of the manager that the clean-up chain has destroyed, kept where a leak checker
// sees that they are no leak.
std::vector<CTORVThread*>& KeptReceivers() {
  static auto& kept = *new std::vector<CTORVThread*>;
  return kept;
}

}  // namespace

constinit CallsInProgress torvCalls;

CTORVManager* CTORVManager::Instance() { return keelbase::CAWSingletonT<CTORVManager>::Instance(); }

// Made here so that the destructor needs no memory.
CTORVManager::CTORVManager() { KeptReceivers(); }

// The chain destroys one manager; a later one stays to the end.
CTORVManager::~CTORVManager() {
  torvCalls.WaitForEarlierOnes();
  KeptReceivers().swap(receivers_);
}

AWResult CTORVManager::TORVInit(ITORVSink* sink, void* arg) {
  if (sink == nullptr) return AW_ERROR_FAILURE;
  const Lock lock(lock_);
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
  const Lock lock(lock_);
  for (CTORVThread* receiver : receivers_) {
    if (receiver->GetSink() == sink) receiver->RegisterTno(tno, context);
  }
  return AW_OK;
}

AWResult CTORVManager::TORVUnRegisterTno(ITORVSink* sink, unsigned short tno) {
  const Lock lock(lock_);
  for (CTORVThread* receiver : receivers_) {
    if (receiver->GetSink() == sink) receiver->UnRegisterTno(tno);
  }
  return AW_OK;
}

AWResult CTORVManager::SendTORVMessage(CAWMessageBlock& mb, unsigned short number) {
  const Lock lock(lock_);
  for (CTORVThread* receiver : receivers_) receiver->PostTORVMessage(mb, number, nullptr);
  return AW_OK;
}

AWResult CTORVManager::SendTORVMessage(CAWMessageBlock& mb, unsigned short number,
                                       unsigned short tno) {
  const Lock lock(lock_);
  for (CTORVThread* receiver : receivers_) {
    void* context = nullptr;
    if (receiver->GetTno(tno, context) == AW_OK) receiver->PostTORVMessage(mb, number, context);
  }
  return AW_OK;
}

AWResult CTORVManager::NotifyTORVInitEnd() {
  const Lock lock(lock_);
  for (CTORVThread* receiver : receivers_) receiver->NotifyInitOk();
  return AW_OK;
}

AWResult CTORVManager::NotifyTORVUnInit() {
  const Lock lock(lock_);
  for (CTORVThread* receiver : receivers_) receiver->NotifyUnInit();
  return AW_OK;
}

}  // namespace zarn::utils
