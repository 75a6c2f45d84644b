// CZARNAppsManager.cpp - see CZARNAppsManager.h.
#include "zarn/utils/CZARNAppsManager.h"

#include <algorithm>
#include <new>
#include <type_traits>

#include "keelbase/CAWHash.h"

namespace zarn::utils {

using keelbase::AW_ERROR_FAILURE;
using keelbase::AW_OK;
using keelbase::AWResult;

static_assert(sizeof(ZARNAppKey) == 16 && std::has_unique_object_representations_v<ZARNAppKey>);

ZARNAppKey::ZARNAppKey(const CZARNAddress& address)
    : datacenterid(address.GetDataCenterId()),
      clusterid(address.GetClusterId()),
      nodeid(address.GetNodeId()),
      jno(address.jno) {}

std::size_t CZARNAppKeyHashFun::operator()(const ZARNAppKey& key) const {
  return keelbase::hash_bytes(&key, sizeof key, 0);
}

AWResult CZARNAppsManager::AddApp(const CZARNApp& app) try {
  return apps_.try_emplace(ZARNAppKey(app), app).second ? AW_OK : AW_ERROR_FAILURE;
} catch (const std::bad_alloc&) {
  return AW_ERROR_FAILURE;
}

AWResult CZARNAppsManager::RemoveApp(const CZARNApp& app) {
  return apps_.erase(ZARNAppKey(app)) == 1 ? AW_OK : AW_ERROR_FAILURE;
}

AWResult CZARNAppsManager::GetAppsByJno(unsigned short jno, CZARNApp& out) const {
  const auto found = std::find_if(apps_.begin(), apps_.end(),
                                  [&](const auto& entry) { return entry.second.jno == jno; });
  if (found == apps_.end()) return AW_ERROR_FAILURE;
  out = found->second;
  return AW_OK;
}

void CZARNAppsManager::GetAppsList(std::list<CZARNApp>& out) const {
  std::list<CZARNApp> all;
  for (const auto& entry : apps_) all.push_back(entry.second);
  out.splice(out.end(), all);
}

}  // namespace zarn::utils
