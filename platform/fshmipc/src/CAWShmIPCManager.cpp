// CAWShmIPCManager.cpp - see CAWShmIPCManager.h.
#include "fshmipc/CAWShmIPCManager.h"

#include <atomic>
#include <new>

#include "ShmIPCAcceptor.h"
#include "ShmIPCConnector.h"
#include "SystemPath.h"
#include "keelbase/CAWThreadManager.h"

namespace fshmipc {

namespace {

using keelbase::AWResult;
using keelbase::CAWAutoPtr;

class ShmIPCManager final : public CAWShmIPCManager {
 public:
  void SetSystemPath(const keelbase::CAWString& directory) override { systemPath_.Set(directory); }
  AWResult CreateConnector(CAWAutoPtr<IAWShmIPCConnector>& out) override {
    return Create<ShmIPCConnector>(out);
  }
  AWResult CreateAcceptor(CAWAutoPtr<IAWShmIPCAcceptor>& out) override {
    return Create<ShmIPCAcceptor>(out);
  }

 private:
  // Their callbacks come on the caller's loop, else on the network thread's.
  template <class Object, class Interface>
  AWResult Create(CAWAutoPtr<Interface>& out) {
    out = nullptr;
    keelbase::CAWThread* thread = keelbase::CAWThreadManager::Instance()->GetCurrentOrNetwork();
    if (thread == nullptr) return keelbase::AW_ERROR_FAILURE;
    try {
      out = new Object(thread->GetLoop(), systemPath_);
    } catch (const std::bad_alloc&) {
      return keelbase::AW_ERROR_FAILURE;
    }
    return keelbase::AW_OK;
  }

  SystemPath systemPath_;
};

std::atomic<CAWShmIPCManager*> testInstance{nullptr};

}  // namespace

CAWShmIPCManager* CAWShmIPCManager::Instance() {
  static ShmIPCManager& manager = *new ShmIPCManager;  // lives for ever, like the threads
  CAWShmIPCManager* replaced = testInstance.load(std::memory_order_acquire);
  return replaced != nullptr ? replaced : &manager;
}

void CAWShmIPCManager::TEST_SetInstance(CAWShmIPCManager* manager) {
  testInstance.store(manager, std::memory_order_release);
}

}  // namespace fshmipc
