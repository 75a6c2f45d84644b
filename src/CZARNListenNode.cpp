// CZARNListenNode.cpp - see CZARNListenNode.h.
#include "zarn/utils/CZARNListenNode.h"

#include <type_traits>

#include "keelbase/CAWHash.h"
#include "keelbase/CAWString.h"

namespace zarn::utils {

static_assert(sizeof(CZARNListenNodeKey) == 16 &&
              std::has_unique_object_representations_v<CZARNListenNodeKey>);

bool CZARNListenNodeItem::operator==(const CZARNListenNodeItem& other) const {
  return pno_ == other.pno_ && serviceno_ == other.serviceno_ && clusterid_ == other.clusterid_ &&
         datacenterid_ == other.datacenterid_ && nodeid_ == other.nodeid_ &&
         listenPrivateIp_ == other.listenPrivateIp_ && listenPublicIp_ == other.listenPublicIp_;
}

bool CZARNListenNodeItem::IsPublicChannel() const {
  const keelbase::CAWString publicName = listenPublicIp_.GetIpDisplayName();
  return publicName != "0.0.0.0" && publicName != listenPrivateIp_.GetIpDisplayName();
}

CZARNListenNodeKey::CZARNListenNodeKey(const CZARNListenNodeItem& item)
    : datacenterid(item.GetDatacenterid()),
      clusterid(item.GetClusterid()),
      nodeid(item.GetNodeId()),
      pno(item.GetPno()),
      serviceno(item.GetServiceno()) {}

std::size_t CZARNListenNodeKeyHashFun::operator()(const CZARNListenNodeKey& key) const {
  return keelbase::hash_bytes(&key, sizeof key, 0);
}

}  // namespace zarn::utils
