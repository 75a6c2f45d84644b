// CZARNCluster.h - the settings of one cluster.
#pragma once

#include <cstdint>

#include "zarn/utils/zarndefines.h"

namespace zarn::utils {

// A value: one thread at a time. What the value, the flags and the state stand for is the business
// of whoever uses them.
//
//   CZARNCluster cluster(7, 100);
//   CZARNCluster news;
//   news.clusterValue = 200;
//   cluster.Update(news);  // the value is 200 now, the flags are as before
class ZARNUTILS_API CZARNCluster {
 public:
  std::uint32_t clusterId = 0;
  std::uint32_t clusterValue = 0;
  std::uint8_t flagA = 0;
  std::uint8_t flagB = 0;
  std::uint8_t flagC = 0;
  std::uint32_t clusterState = 1;

  CZARNCluster() = default;
  // The low 32 bits of `value`; all flags and the state are 1.
  CZARNCluster(std::uint32_t id, std::uint64_t value);

  bool operator==(const CZARNCluster& other) const;  // all six

  // Takes over what `other` gives: zero means not given, so nothing can be reset to zero this way,
  // and the state of a default-constructed `other` counts as given. The id stays.
  void Update(const CZARNCluster& other);
};

}  // namespace zarn::utils
