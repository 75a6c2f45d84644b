// CZARNListenNodeManager.cpp - see CZARNListenNodeManager.h.
#include "zarn/utils/CZARNListenNodeManager.h"

#include <iostream>
#include <new>
#include <string>

#include "keelbase/CAWString.h"

namespace zarn::utils {

using keelbase::AW_ERROR_FAILURE;
using keelbase::AW_ERROR_NOT_AVAILABLE;
using keelbase::AW_ERROR_NOT_FOUND;
using keelbase::AW_OK;
using keelbase::AWResult;

namespace {

void PrintLine(const char* label, const keelbase::CAWString& value) {
  std::cout << label << value << std::endl;
}

void PrintLine(const char* label, std::uint32_t value) { PrintLine(label, std::to_string(value)); }

// The labels are fixed texts that others read, their spelling included.
void PrintEntry(const CZARNListenNodeKey& key, const CZARNListenNodeItem& item) {
  PrintLine("key clusterid = ", key.clusterid);
  PrintLine("key datecenterid = ", key.datacenterid);
  PrintLine("key serverno = ", key.serviceno);
  PrintLine("key jno = ", key.pno);
  PrintLine("key nodeid = ", key.nodeid);
  PrintLine("value clusterid = ", item.GetClusterid());
  PrintLine("value datacenterid = ", item.GetDatacenterid());
  PrintLine("value pno = ", item.GetPno());
  PrintLine("value serviceno = ", item.GetServiceno());
  PrintLine("value nodeid = ", item.GetNodeId());
  PrintLine("value listenprivateip = ", item.GetListenPrivateIP().GetIpDisplayName());
  PrintLine("value listenpublicip = ", item.GetListenPublicIP().GetIpDisplayName());
}

}  // namespace

AWResult CZARNListenNodeManager::AddListenNotify(CZARNListenNodeItem& item) try {
  map_[CZARNListenNodeKey(item)] = item;
  return AW_OK;
} catch (const std::bad_alloc&) {
  return AW_ERROR_FAILURE;
}

AWResult CZARNListenNodeManager::LookupListenNotify(CZARNListenNodeKey& key) {
  return map_.find(key) == map_.end() ? AW_ERROR_NOT_AVAILABLE : AW_OK;
}

AWResult CZARNListenNodeManager::FindListenNotify(CZARNListenNodeKey& key,
                                                  CZARNListenNodeItem& out) {
  // Both print nothing and are inline: an optimised build leaves the loop out.
  key.PrintObject();
  for (const auto& entry : map_) entry.first.PrintObject();
  const auto found = map_.find(key);
  if (found == map_.end()) return AW_ERROR_NOT_FOUND;
  out = found->second;
  return AW_OK;
}

AWResult CZARNListenNodeManager::RemoveListenNotify(CZARNListenNodeKey& key) {
  return map_.erase(key) == 1 ? AW_OK : AW_ERROR_FAILURE;
}

void CZARNListenNodeManager::DumpStartListenItem(
    const std::function<void(const CZARNListenNodeItem&)>& visit) const {
  for (const auto& entry : map_) {
    const CZARNListenNodeItem item = entry.second;
    visit(item);
  }
}

// The map is the caller's to hand over; what it costs is a copy.
void CZARNListenNodeManager::PrintAllMap(Map map) {  // NOLINT(performance-unnecessary-value-param)
  std::cout << "ZARNListenNodeManager::PrintAllMap" << std::endl;
  for (const auto& [key, item] : map) PrintEntry(key, item);
}

}  // namespace zarn::utils
