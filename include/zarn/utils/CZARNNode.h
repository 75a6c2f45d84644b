// CZARNNode.h - an endpoint and its status.
#pragma once

#include <json/forwards.h>

#include <cstdint>

#include "zarn/utils/CZARNAddress.h"
#include "zarn/utils/zarndefines.h"

namespace zarn::utils {

// A value: one thread at a time. Copies as its address does, so without `ispublic`.
//
//   CZARNNode node(address, 1);
//   Json::Value out;
//   node.ToJson(out);  // the members of the address, and "status": 1
class ZARNUTILS_API CZARNNode : public CZARNAddress {
 public:
  std::uint32_t status = 1;

  CZARNNode() = default;
  CZARNNode(const CZARNAddress& address, std::uint32_t newStatus);

  bool operator==(const CZARNNode& other) const;  // address and status
  bool operator!=(const CZARNNode& other) const { return !(*this == other); }

  // As CZARNAddress::ToJson, and "status", a signed integer: 15 members.
  void ToJson(Json::Value& out) const;
};

}  // namespace zarn::utils
