// CZARNAddress.h - an endpoint: which service it is, where it lives, how it is reached.
#pragma once

#include <json/forwards.h>

#include <cstdint>

#include "keelbase/CAWInetAddr.h"
#include "keelbase/CAWString.h"
#include "zarn/utils/CZARNNodeAddress.h"
#include "zarn/utils/zarndefines.h"

namespace zarn::utils {

// A value: one thread at a time, as any value. Each member is called as its JSON key. There is no
// way back from JSON.
//
// A copy does not carry `ispublic`: assignment leaves the flag of its target as it was, and the
// flag of a copy-constructed address means nothing until it is set (reading it is safe). Whoever
// hands an address on sets it again.
//
//   CZARNAddress address;
//   address.jno = 5;
//   address.serviceno = 1;
//   address.SetDataCenterId(2);
//   address.SetClusterId(7);
//   address.SetNodeId(31);
//   address.ipaddr.Set("192.168.0.31", 7000);
//   address.ToString();  // "2/7/31/5/1"
class ZARNUTILS_API CZARNAddress {
 public:
  std::uint16_t jno = 0;        // the job
  std::uint16_t serviceno = 0;  // the service within the job
  std::uint16_t tno = 0;        // the thread within the job
  std::uint32_t p2pcap = 0;     // capability word; only carried
  bool ispublic = false;        // reachable from outside
  keelbase::CAWInetAddr pubipaddr;
  keelbase::CAWInetAddr ipaddr;            // the private one
  keelbase::CAWInetAddr controlleripaddr;  // of the controller that manages this node

  CZARNAddress() = default;
  CZARNAddress(const CZARNAddress& other) { *this = other; }
  CZARNAddress& operator=(const CZARNAddress& other);

  // Equal numbers, node address and private address; nothing else counts.
  bool operator==(const CZARNAddress& other) const;
  bool operator!=(const CZARNAddress& other) const { return !(*this == other); }

  // Equal numbers and node address: the same endpoint, however it is reached.
  bool IsEqualsToLogicalAddress(const CZARNAddress& other) const;

  void SetClusterId(std::uint32_t id) { nodeAddress_.clusterid = id; }
  void SetDataCenterId(std::uint32_t id) { nodeAddress_.datacenterid = id; }
  void SetNodeId(std::uint32_t id) { nodeAddress_.nodeid = id; }
  std::uint32_t GetClusterId() const { return nodeAddress_.clusterid; }
  std::uint32_t GetDataCenterId() const { return nodeAddress_.datacenterid; }
  std::uint32_t GetNodeId() const { return nodeAddress_.nodeid; }

  void Dump() const {}  // nothing

  // "<data centre>/<cluster>/<node>/<job>/<service>". Lets std::bad_alloc pass.
  keelbase::CAWString ToString() const;

  // Sets 14 members of `out` and leaves its others alone. The node id is an unsigned integer, all
  // other numbers are signed ones (32-bit words of 2^31 and above therefore negative), the flag is
  // 0 or 1, addresses are texts with a port beside them. Does nothing when `out` is neither an
  // object nor null. Lets std::bad_alloc pass.
  void ToJson(Json::Value& out) const;

 private:
  CZARNNodeAddress nodeAddress_;
};

}  // namespace zarn::utils
