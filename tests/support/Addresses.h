// Addresses.h - an endpoint address in which every field has a value of its own.
#pragma once

#include "zarn/utils/CZARNAddress.h"

namespace zarn::test {

inline utils::CZARNAddress MakeAddress() {
  utils::CZARNAddress address;
  address.jno = 5;
  address.serviceno = 1;
  address.tno = 9;
  address.SetClusterId(7);
  address.SetDataCenterId(2);
  address.SetNodeId(31);
  address.p2pcap = 12;
  address.ispublic = true;
  address.pubipaddr.Set("192.0.2.7", 8443);
  address.ipaddr.Set("10.0.0.5", 7000);
  address.controlleripaddr.Set("10.0.0.1", 65535);
  return address;
}

}  // namespace zarn::test
