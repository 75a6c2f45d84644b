// CAWPseudoTCPManager.cpp - see CAWPseudoTCPManager.h.
#include "ptcp/CAWPseudoTCPManager.h"

#include <atomic>

#include "PtcpAcceptor.h"
#include "PtcpConnector.h"
#include "keelbase/internal/Everlasting.h"
#include "keelbase/internal/MakeOnLoop.h"

namespace ptcp {

namespace {

using keelbase::AWResult;
using keelbase::CAWAutoPtr;
using keelbase::internal::MakeOnLoop;

class PseudoTCPManager final : public CAWPseudoTCPManager {
 public:
  AWResult CreateConnector(CAWAutoPtr<IAWPseudoTCPConnector>& out) override {
    return MakeOnLoop<PtcpConnector>(out);
  }
  AWResult CreateAcceptor(CAWAutoPtr<IAWPseudoTCPAcceptor>& out) override {
    return MakeOnLoop<PtcpAcceptor>(out);
  }
};

std::atomic<CAWPseudoTCPManager*> testInstance{nullptr};

}  // namespace

CAWPseudoTCPManager* CAWPseudoTCPManager::Instance() {
  auto& manager = keelbase::internal::Everlasting<PseudoTCPManager>();
  CAWPseudoTCPManager* replaced = testInstance.load(std::memory_order_acquire);
  return replaced != nullptr ? replaced : &manager;
}

void CAWPseudoTCPManager::TEST_SetInstance(CAWPseudoTCPManager* manager) {
  testInstance.store(manager, std::memory_order_release);
}

}  // namespace ptcp
