// CZARNCluster.cpp - see CZARNCluster.h.
#include "zarn/utils/CZARNCluster.h"

namespace zarn::utils {
namespace {

template <class Number>
void TakeIfGiven(Number& field, Number news) {
  if (news != 0) field = news;
}

}  // namespace

CZARNCluster::CZARNCluster(std::uint32_t id, std::uint64_t value)
    : clusterId(id),
      clusterValue(static_cast<std::uint32_t>(value)),
      flagA(1),
      flagB(1),
      flagC(1),
      clusterState(1) {}

bool CZARNCluster::operator==(const CZARNCluster& other) const {
  return clusterId == other.clusterId && clusterValue == other.clusterValue &&
         flagA == other.flagA && flagB == other.flagB && flagC == other.flagC &&
         clusterState == other.clusterState;
}

void CZARNCluster::Update(const CZARNCluster& other) {
  TakeIfGiven(clusterValue, other.clusterValue);
  TakeIfGiven(flagA, other.flagA);
  TakeIfGiven(flagB, other.flagB);
  TakeIfGiven(clusterState, other.clusterState);
  TakeIfGiven(flagC, other.flagC);
}

}  // namespace zarn::utils
