// CZARNCluster_test.cpp - cluster settings and their merging.
#include "zarn/utils/CZARNCluster.h"

#include <gtest/gtest.h>

namespace zarn::test {
namespace {

using utils::CZARNCluster;

CZARNCluster MakeCluster() {
  CZARNCluster cluster(7, 100);
  cluster.flagA = 2;
  cluster.flagB = 3;
  cluster.flagC = 4;
  cluster.clusterState = 5;
  return cluster;
}

CZARNCluster MakeNothing() {
  CZARNCluster nothing;
  nothing.clusterState = 0;
  return nothing;
}

TEST(CZARNCluster, DefaultIsZeroButForTheState) {
  const CZARNCluster cluster;
  EXPECT_EQ(cluster.clusterId, 0U);
  EXPECT_EQ(cluster.clusterValue, 0U);
  EXPECT_EQ(cluster.flagA, 0U);
  EXPECT_EQ(cluster.flagB, 0U);
  EXPECT_EQ(cluster.flagC, 0U);
  EXPECT_EQ(cluster.clusterState, 1U);
}

TEST(CZARNCluster, IdAndValueSetTheFlags) {
  const CZARNCluster cluster(7, 0x123456789ABCDEF0ULL);
  EXPECT_EQ(cluster.clusterId, 7U);
  EXPECT_EQ(cluster.clusterValue, 0x9ABCDEF0U);
  EXPECT_EQ(cluster.flagA, 1U);
  EXPECT_EQ(cluster.flagB, 1U);
  EXPECT_EQ(cluster.flagC, 1U);
  EXPECT_EQ(cluster.clusterState, 1U);
}

TEST(CZARNCluster, EachFieldIsCopiedAndCompared) {
  const CZARNCluster cluster = MakeCluster();
  CZARNCluster other;
  other = cluster;
  EXPECT_TRUE(other == cluster);
  for (auto word :
       {&CZARNCluster::clusterId, &CZARNCluster::clusterValue, &CZARNCluster::clusterState}) {
    other = cluster;
    ++(other.*word);
    EXPECT_FALSE(other == cluster);
  }
  for (auto flag : {&CZARNCluster::flagA, &CZARNCluster::flagB, &CZARNCluster::flagC}) {
    other = cluster;
    ++(other.*flag);
    EXPECT_FALSE(other == cluster);
  }
}

TEST(CZARNCluster, UpdateTakesEachFieldThatIsGiven) {
  for (auto word : {&CZARNCluster::clusterValue, &CZARNCluster::clusterState}) {
    CZARNCluster news = MakeNothing();
    news.*word = 200;
    CZARNCluster expected = MakeCluster();
    expected.*word = 200;
    CZARNCluster cluster = MakeCluster();
    cluster.Update(news);
    EXPECT_TRUE(cluster == expected);
  }
  for (auto flag : {&CZARNCluster::flagA, &CZARNCluster::flagB, &CZARNCluster::flagC}) {
    CZARNCluster news = MakeNothing();
    news.*flag = 200;
    CZARNCluster expected = MakeCluster();
    expected.*flag = 200;
    CZARNCluster cluster = MakeCluster();
    cluster.Update(news);
    EXPECT_TRUE(cluster == expected);
  }
}

TEST(CZARNCluster, UpdateNeverChangesTheId) {
  CZARNCluster news = MakeNothing();
  news.clusterId = 99;
  CZARNCluster cluster = MakeCluster();
  cluster.Update(news);
  EXPECT_TRUE(cluster == MakeCluster());
}

TEST(CZARNCluster, UpdateWithADefaultChangesTheStateOnly) {
  CZARNCluster cluster = MakeCluster();
  cluster.Update(CZARNCluster());
  CZARNCluster expected = MakeCluster();
  expected.clusterState = 1;
  EXPECT_TRUE(cluster == expected);
}

}  // namespace
}  // namespace zarn::test
