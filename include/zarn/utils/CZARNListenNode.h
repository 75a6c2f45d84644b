// CZARNListenNode.h - a service that listens: where it runs and on which addresses.
#pragma once

#include <cstddef>
#include <cstdint>

#include "keelbase/CAWInetAddr.h"
#include "zarn/utils/zarndefines.h"

namespace zarn::utils {

// A value: one thread at a time, as any value.
//
//   CZARNListenNodeItem item;
//   item.SetPno(3);
//   item.SetServiceno(1);
//   item.SetListenPrivateIP(keelbase::CAWInetAddr("10.0.0.5", 7000));
//   item.SetListenPublicIP(keelbase::CAWInetAddr("192.0.2.7", 7000));
//   item.IsPublicChannel();  // true
class ZARNUTILS_API CZARNListenNodeItem {
 public:
  std::uint16_t GetPno() const { return pno_; }
  void SetPno(unsigned short pno) { pno_ = pno; }
  std::uint16_t GetServiceno() const { return serviceno_; }
  void SetServiceno(unsigned short serviceno) { serviceno_ = serviceno; }
  std::uint32_t GetClusterid() const { return clusterid_; }
  void SetClusterid(unsigned int clusterid) { clusterid_ = clusterid; }
  std::uint32_t GetDatacenterid() const { return datacenterid_; }
  void SetDatacenterid(unsigned int datacenterid) { datacenterid_ = datacenterid; }
  std::uint32_t GetNodeId() const { return nodeid_; }
  void SetNodeId(unsigned int nodeid) { nodeid_ = nodeid; }

  keelbase::CAWInetAddr GetListenPrivateIP() const { return listenPrivateIp_; }
  void SetListenPrivateIP(const keelbase::CAWInetAddr& ip) { listenPrivateIp_ = ip; }
  keelbase::CAWInetAddr GetListenPublicIP() const { return listenPublicIp_; }
  void SetListenPublicIP(const keelbase::CAWInetAddr& ip) { listenPublicIp_ = ip; }

  bool operator==(const CZARNListenNodeItem& other) const;  // numbers and both addresses
  bool operator!=(const CZARNListenNodeItem& other) const { return !(*this == other); }

  // There is a public IP (not 0.0.0.0) and it is not simply the private one. Ports play no part.
  bool IsPublicChannel() const;

 private:
  std::uint16_t pno_ = 0;
  std::uint16_t serviceno_ = 0;
  std::uint32_t clusterid_ = 0;
  std::uint32_t datacenterid_ = 0;
  std::uint32_t nodeid_ = 0;
  keelbase::CAWInetAddr listenPrivateIp_{0};
  keelbase::CAWInetAddr listenPublicIp_{0};
};

// What an item is kept under; hashed as 16 raw bytes.
struct ZARNUTILS_API CZARNListenNodeKey {
  std::uint32_t datacenterid = 0;
  std::uint32_t clusterid = 0;
  std::uint32_t nodeid = 0;
  std::uint16_t pno = 0;
  std::uint16_t serviceno = 0;

  CZARNListenNodeKey() = default;
  explicit CZARNListenNodeKey(const CZARNListenNodeItem& item);

  bool operator==(const CZARNListenNodeKey& other) const {
    return datacenterid == other.datacenterid && clusterid == other.clusterid &&
           nodeid == other.nodeid && pno == other.pno && serviceno == other.serviceno;
  }

  void PrintObject() const {}  // nothing; inline, so that calling it costs nothing
};

// 32 bits of keelbase::hash_bytes. Not noexcept, so that the table keeps the hash with each entry
// and compares it first.
struct ZARNUTILS_API CZARNListenNodeKeyHashFun {
  std::size_t operator()(const CZARNListenNodeKey& key) const;
};

}  // namespace zarn::utils
