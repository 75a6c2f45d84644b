// CAWSSLManager.cpp - see CAWSSLManager.h.
#include "sslutils/CAWSSLManager.h"

#include <atomic>

#include "OverTcp.h"
#include "keelbase/internal/Immortal.h"
#include "keelbase/internal/MakeOnLoop.h"
#include "sslutils/internal/TlsClient.h"

namespace sslutils {

namespace {

using keelbase::AWResult;
using keelbase::CAWAutoPtr;
using keelbase::internal::MakeOnLoop;

class SSLManager final : public IAWSSLManager {
 public:
  AWResult CreateSSLConnector(CAWAutoPtr<IAWSSLConnector>& out) override {
    CAWAutoPtr<wface::IAWConnector> tcp;
    out = nullptr;
    const AWResult made =
        wface::CAWConnectionManager::Instance()->CreateConnector(wface::AW_KIND_TCP, tcp);
    return made == keelbase::AW_OK ? MakeOnLoop<SSLConnector>(out, tcp) : made;
  }
  AWResult CreateSSLAcceptor(CAWAutoPtr<IAWSSLAcceptor>& out) override {
    CAWAutoPtr<wface::IAWAcceptor> tcp;
    out = nullptr;
    const AWResult made =
        wface::CAWConnectionManager::Instance()->CreateAcceptor(wface::AW_KIND_TCP, tcp);
    return made == keelbase::AW_OK ? MakeOnLoop<SSLAcceptor>(out, tcp) : made;
  }
  AWResult SetTrustedCertificates(const keelbase::CAWString& text) override {
    return internal::SetTrusted(text);
  }
};

std::atomic<IAWSSLManager*> testInstance{nullptr};

}  // namespace

IAWSSLManager* IAWSSLManager::Instance() {
  IAWSSLManager* replaced = testInstance.load(std::memory_order_acquire);
  return replaced != nullptr ? replaced : &keelbase::internal::Immortal<SSLManager>();
}

void IAWSSLManager::TEST_SetInstance(IAWSSLManager* manager) {
  testInstance.store(manager, std::memory_order_release);
}

}  // namespace sslutils
