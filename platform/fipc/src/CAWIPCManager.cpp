// CAWIPCManager.cpp - see CAWIPCManager.h.
#include "fipc/CAWIPCManager.h"

#include <atomic>
#include <new>

#include "IPCAcceptor.h"
#include "IPCConnector.h"
#include "keelbase/CAWThreadManager.h"

namespace fipc {

namespace {

using keelbase::AWResult;
using keelbase::CAWAutoPtr;

constexpr int kUnixStream = 1;

// Their callbacks come on the caller's loop, else on the network thread's.
template <class Object, class Interface>
AWResult Create(int kind, CAWAutoPtr<Interface>& out) {
  out = nullptr;
  if (kind != kUnixStream) return keelbase::AW_ERROR_FAILURE;
  keelbase::CAWThread* thread = keelbase::CAWThreadManager::Instance()->GetCurrentOrNetwork();
  if (thread == nullptr) return keelbase::AW_ERROR_FAILURE;
  try {
    out = new Object(thread->GetLoop());
  } catch (const std::bad_alloc&) {
    return keelbase::AW_ERROR_FAILURE;
  }
  return keelbase::AW_OK;
}

class IPCManager final : public CAWIPCManager {
 public:
  AWResult CreateConnector(int kind, CAWAutoPtr<IAWIPCConnector>& out) override {
    return Create<IPCConnector>(kind, out);
  }
  AWResult CreateAcceptor(int kind, CAWAutoPtr<IAWIPCAcceptor>& out) override {
    return Create<IPCAcceptor>(kind, out);
  }
};

std::atomic<CAWIPCManager*> testInstance{nullptr};

}  // namespace

CAWIPCManager* CAWIPCManager::Instance() {
  static IPCManager& manager = *new IPCManager;  // lives for ever, like the threads
  CAWIPCManager* replaced = testInstance.load(std::memory_order_acquire);
  return replaced != nullptr ? replaced : &manager;
}

void CAWIPCManager::TEST_SetInstance(CAWIPCManager* manager) {
  testInstance.store(manager, std::memory_order_release);
}

}  // namespace fipc
