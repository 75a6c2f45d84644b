// CZARNNodeAddress.h - where a node is: cluster, data centre, node.
#pragma once

#include <json/forwards.h>

#include <cstdint>

#include "zarn/utils/zarndefines.h"

namespace zarn::utils {

// A value: copies freely, one thread at a time, as any value. Each member is called as its JSON
// key.
//
//   CZARNNodeAddress where;
//   where.nodeid = 31;
//   Json::Value out;
//   where.ToJson(out);  // {"clusterid": 0, "datacenterid": 0, "nodeid": 31}
class ZARNUTILS_API CZARNNodeAddress {
 public:
  std::uint32_t clusterid = 0;
  std::uint32_t datacenterid = 0;
  std::uint32_t nodeid = 0;

  bool operator==(const CZARNNodeAddress& other) const;
  bool operator!=(const CZARNNodeAddress& other) const { return !(*this == other); }

  // Sets three members of `out`, all signed integers (2^31 and above therefore as negative ones),
  // and leaves its others alone. Does nothing when `out` is neither an object nor null. Lets
  // std::bad_alloc pass.
  void ToJson(Json::Value& out) const;
};

}  // namespace zarn::utils
