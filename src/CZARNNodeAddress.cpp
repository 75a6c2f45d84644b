// CZARNNodeAddress.cpp - see CZARNNodeAddress.h.
#include "zarn/utils/CZARNNodeAddress.h"

#include "JsonMembers.h"

namespace zarn::utils {

bool CZARNNodeAddress::operator==(const CZARNNodeAddress& other) const {
  return clusterid == other.clusterid && datacenterid == other.datacenterid &&
         nodeid == other.nodeid;
}

void CZARNNodeAddress::ToJson(Json::Value& out) const {
  if (!CanHaveMembers(out)) return;
  out["clusterid"] = SignedNumber(clusterid);
  out["datacenterid"] = SignedNumber(datacenterid);
  out["nodeid"] = SignedNumber(nodeid);
}

}  // namespace zarn::utils
