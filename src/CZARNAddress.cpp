// CZARNAddress.cpp - see CZARNAddress.h.
#include "zarn/utils/CZARNAddress.h"

#include <string>

#include "JsonMembers.h"

namespace zarn::utils {

CZARNAddress& CZARNAddress::operator=(const CZARNAddress& other) {
  if (this == &other) return *this;
  jno = other.jno;
  serviceno = other.serviceno;
  tno = other.tno;
  nodeAddress_ = other.nodeAddress_;
  ipaddr = other.ipaddr;
  controlleripaddr = other.controlleripaddr;
  p2pcap = other.p2pcap;
  pubipaddr = other.pubipaddr;
  return *this;
}

bool CZARNAddress::operator==(const CZARNAddress& other) const {
  return IsEqualsToLogicalAddress(other) && ipaddr == other.ipaddr;
}

bool CZARNAddress::IsEqualsToLogicalAddress(const CZARNAddress& other) const {
  return jno == other.jno && serviceno == other.serviceno && tno == other.tno &&
         nodeAddress_ == other.nodeAddress_;
}

keelbase::CAWString CZARNAddress::ToString() const {
  return std::to_string(GetDataCenterId()) + '/' + std::to_string(GetClusterId()) + '/' +
         std::to_string(GetNodeId()) + '/' + std::to_string(jno) + '/' + std::to_string(serviceno);
}

void CZARNAddress::ToJson(Json::Value& out) const {
  if (!CanHaveMembers(out)) return;
  out["jno"] = SignedNumber(jno);
  out["serviceno"] = SignedNumber(serviceno);
  out["tno"] = SignedNumber(tno);
  out["clusterid"] = SignedNumber(GetClusterId());
  out["datacenterid"] = SignedNumber(GetDataCenterId());
  out["p2pcap"] = SignedNumber(p2pcap);
  out["ispublic"] = SignedNumber(ispublic ? 1 : 0);
  out["nodeid"] = Json::Value(Json::UInt{GetNodeId()});
  out["pubipaddr"] = pubipaddr.GetIpDisplayName();
  out["pubipaddr_port"] = SignedNumber(pubipaddr.GetPort());
  out["ipaddr"] = ipaddr.GetIpDisplayName();
  out["ipaddr_port"] = SignedNumber(ipaddr.GetPort());
  out["controlleripaddr"] = controlleripaddr.GetIpDisplayName();
  out["controlleripaddr_port"] = SignedNumber(controlleripaddr.GetPort());
}

}  // namespace zarn::utils
