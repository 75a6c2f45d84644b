// CAWShmIPCManager.cpp - see CAWShmIPCManager.h.
#include "fshmipc/CAWShmIPCManager.h"

#include <atomic>

#include "ShmIPCAcceptor.h"
#include "ShmIPCConnector.h"
#include "SystemPath.h"
#include "keelbase/internal/Everlasting.h"
#include "keelbase/internal/MakeOnLoop.h"

namespace fshmipc {

namespace {

using keelbase::AWResult;
using keelbase::CAWAutoPtr;
using keelbase::internal::MakeOnLoop;

class ShmIPCManager final : public CAWShmIPCManager {
 public:
  void SetSystemPath(const keelbase::CAWString& directory) override { systemPath_.Set(directory); }
  AWResult CreateConnector(CAWAutoPtr<IAWShmIPCConnector>& out) override {
    return MakeOnLoop<ShmIPCConnector>(out, systemPath_);
  }
  AWResult CreateAcceptor(CAWAutoPtr<IAWShmIPCAcceptor>& out) override {
    return MakeOnLoop<ShmIPCAcceptor>(out, systemPath_);
  }

 private:
  SystemPath systemPath_;
};

std::atomic<CAWShmIPCManager*> testInstance{nullptr};

}  // namespace

CAWShmIPCManager* CAWShmIPCManager::Instance() {
  auto& manager = keelbase::internal::Everlasting<ShmIPCManager>();
  CAWShmIPCManager* replaced = testInstance.load(std::memory_order_acquire);
  return replaced != nullptr ? replaced : &manager;
}

void CAWShmIPCManager::TEST_SetInstance(CAWShmIPCManager* manager) {
  testInstance.store(manager, std::memory_order_release);
}

}  // namespace fshmipc
