// CZARNApp_test.cpp - an application is an address.
#include "zarn/utils/CZARNApp.h"

#include <gtest/gtest.h>

#include "Addresses.h"

namespace zarn::test {
namespace {

using utils::CZARNAddress;
using utils::CZARNApp;

static_assert(sizeof(CZARNApp) == sizeof(CZARNAddress));

TEST(CZARNApp, DefaultIsADefaultAddress) {
  EXPECT_EQ(CZARNApp().ToString(), "0/0/0/0/0");
  EXPECT_TRUE(CZARNApp() == CZARNApp(CZARNAddress()));
}

TEST(CZARNApp, CopiesAsItsAddressDoes) {
  CZARNApp app(MakeAddress());
  app.ispublic = true;
  const CZARNApp constructed(app);
  CZARNApp assigned;
  assigned = app;
  EXPECT_TRUE(constructed == app);
  EXPECT_TRUE(assigned == app);
  EXPECT_EQ(assigned.p2pcap, 12U);
  EXPECT_FALSE(constructed.ispublic);
  EXPECT_FALSE(assigned.ispublic);
  const CZARNApp& same = app;
  app = same;
  EXPECT_TRUE(app.ispublic);
}

TEST(CZARNApp, ComparesAsItsAddressDoes) {
  const CZARNApp app(MakeAddress());
  CZARNApp other = app;
  other.pubipaddr.SetPort(1);
  EXPECT_TRUE(other == app);
  other.ipaddr.SetPort(1);
  EXPECT_FALSE(other == app);
}

}  // namespace
}  // namespace zarn::test
