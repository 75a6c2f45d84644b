// CAWConnectionManager.cpp - see CAWConnectionManager.h.
#include "wface/CAWConnectionManager.h"

#include <atomic>

#include "TcpAcceptor.h"
#include "TcpConnector.h"
#include "keelbase/internal/Immortal.h"
#include "keelbase/internal/MakeOnLoop.h"

namespace wface {

namespace {

using keelbase::AW_ERROR_FAILURE;
using keelbase::AWResult;
using keelbase::CAWAutoPtr;
using keelbase::internal::MakeOnLoop;

class ConnectionManager final : public CAWConnectionManager {
 public:
  AWResult CreateConnector(int kind, CAWAutoPtr<IAWConnector>& out) override {
    out = nullptr;
    return kind == AW_KIND_TCP ? MakeOnLoop<TcpConnector>(out) : AW_ERROR_FAILURE;
  }
  AWResult CreateAcceptor(int kind, CAWAutoPtr<IAWAcceptor>& out) override {
    out = nullptr;
    return kind == AW_KIND_TCP ? MakeOnLoop<TcpAcceptor>(out) : AW_ERROR_FAILURE;
  }
};

std::atomic<CAWConnectionManager*> testInstance{nullptr};

}  // namespace

CAWConnectionManager* CAWConnectionManager::Instance() {
  CAWConnectionManager* replaced = testInstance.load(std::memory_order_acquire);
  return replaced != nullptr ? replaced : &keelbase::internal::Immortal<ConnectionManager>();
}

void CAWConnectionManager::TEST_SetInstance(CAWConnectionManager* manager) {
  testInstance.store(manager, std::memory_order_release);
}

}  // namespace wface
