// CZARNNode.cpp - see CZARNNode.h.
#include "zarn/utils/CZARNNode.h"

#include "JsonMembers.h"

namespace zarn::utils {

CZARNNode::CZARNNode(const CZARNAddress& address, std::uint32_t newStatus)
    : CZARNAddress(address), status(newStatus) {}

bool CZARNNode::operator==(const CZARNNode& other) const {
  return CZARNAddress::operator==(other) && status == other.status;
}

void CZARNNode::ToJson(Json::Value& out) const {
  if (!CanHaveMembers(out)) return;
  out["status"] = SignedNumber(status);
  CZARNAddress::ToJson(out);
}

}  // namespace zarn::utils
