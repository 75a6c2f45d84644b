// torv.cpp - see torv.h.
#include "zarn/utils/torv.h"

#include <new>

#include "TorvLock.h"
#include "zarn/utils/CTORVManager.h"

namespace zarn::utils {

using keelbase::AWResult;

namespace {

template <class Operation>
AWResult WithManager(Operation operation) {
  try {
    for (;;) {
      CTORVManager* manager = CTORVManager::Instance();
      const TorvLock lock;
      if (IsTorvManager(manager)) return operation(*manager);  // its end waits for the lock
    }
  } catch (const std::bad_alloc&) {
    return keelbase::AW_ERROR_FAILURE;
  }
}

}  // namespace

AWResult TORVInit(ITORVSink* sink, void* arg) {
  return WithManager([&](CTORVManager& manager) { return manager.TORVInit(sink, arg); });
}

AWResult TORVRegisterTno(ITORVSink* sink, unsigned short tno, void* context) {
  return WithManager(
      [&](CTORVManager& manager) { return manager.TORVRegisterTno(sink, tno, context); });
}

AWResult TORVUnRegisterTno(ITORVSink* sink, unsigned short tno) {
  return WithManager([&](CTORVManager& manager) { return manager.TORVUnRegisterTno(sink, tno); });
}

AWResult SendTORVMessage(keelbase::CAWMessageBlock& mb, unsigned short number, unsigned short tno) {
  return WithManager(
      [&](CTORVManager& manager) { return manager.SendTORVMessage(mb, number, tno); });
}

AWResult NotifyTORVInitEnd() {
  return WithManager([](CTORVManager& manager) { return manager.NotifyTORVInitEnd(); });
}

AWResult NotifyTORVUnInit() {
  return WithManager([](CTORVManager& manager) { return manager.NotifyTORVUnInit(); });
}

}  // namespace zarn::utils
