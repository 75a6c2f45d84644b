// CAWIPCManager.cpp - see CAWIPCManager.h.
#include "fipc/CAWIPCManager.h"

#include <atomic>

#include "IPCAcceptor.h"
#include "IPCConnector.h"
#include "keelbase/internal/Immortal.h"
#include "keelbase/internal/MakeOnLoop.h"

namespace fipc {

namespace {

using keelbase::AW_ERROR_FAILURE;
using keelbase::AWResult;
using keelbase::CAWAutoPtr;
using keelbase::internal::MakeOnLoop;

class IPCManager final : public CAWIPCManager {
 public:
  AWResult CreateConnector(int kind, CAWAutoPtr<IAWIPCConnector>& out) override {
    out = nullptr;
    return kind == AW_KIND_UNIX ? MakeOnLoop<IPCConnector>(out) : AW_ERROR_FAILURE;
  }
  AWResult CreateAcceptor(int kind, CAWAutoPtr<IAWIPCAcceptor>& out) override {
    out = nullptr;
    return kind == AW_KIND_UNIX ? MakeOnLoop<IPCAcceptor>(out) : AW_ERROR_FAILURE;
  }
};

std::atomic<CAWIPCManager*> testInstance{nullptr};

}  // namespace

CAWIPCManager* CAWIPCManager::Instance() {
  CAWIPCManager* replaced = testInstance.load(std::memory_order_acquire);
  return replaced != nullptr ? replaced : &keelbase::internal::Immortal<IPCManager>();
}

void CAWIPCManager::TEST_SetInstance(CAWIPCManager* manager) {
  testInstance.store(manager, std::memory_order_release);
}

}  // namespace fipc
