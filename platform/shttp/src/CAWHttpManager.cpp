// CAWHttpManager.cpp - see CAWHttpManager.h.
#include "shttp/CAWHttpManager.h"

#include <atomic>
#include <new>

#include "HttpClient.h"
#include "keelbase/CAWThreadManager.h"
#include "keelbase/internal/Immortal.h"
#include "keelbase/internal/Mutex.h"

namespace shttp {

namespace {

using keelbase::internal::Mutex;
using keelbase::internal::MutexLock;

class HttpManager final : public IAWHttpManager {
 public:
  keelbase::AWResult CreateHttpClient(keelbase::CAWAutoPtr<IAWHttpClient>& out) override {
    using keelbase::CAWThreadManager;
    out = nullptr;
    try {
      auto* network = CAWThreadManager::Instance()->GetThread(CAWThreadManager::TT_NETWORK);
      if (network == nullptr) return keelbase::AW_ERROR_FAILURE;
      out = new HttpClient(network->GetLoop(), GetLimits());
      return keelbase::AW_OK;
    } catch (const std::bad_alloc&) {
      return keelbase::AW_ERROR_FAILURE;
    }
  }
  void SetLimits(const CAWHttpLimits& limits) override {
    const MutexLock lock(mutex_);
    limits_ = limits;
  }

 private:
  CAWHttpLimits GetLimits() {
    const MutexLock lock(mutex_);
    return limits_;
  }

  Mutex mutex_;
  CAWHttpLimits limits_ AW_GUARDED_BY(mutex_);
};

std::atomic<IAWHttpManager*> testInstance{nullptr};

}  // namespace

IAWHttpManager* IAWHttpManager::Instance() {
  IAWHttpManager* replaced = testInstance.load(std::memory_order_acquire);
  return replaced != nullptr ? replaced : &keelbase::internal::Immortal<HttpManager>();
}

void IAWHttpManager::TEST_SetInstance(IAWHttpManager* manager) {
  testInstance.store(manager, std::memory_order_release);
}

}  // namespace shttp
