// CZARNLibClientChannel_test.cpp - what only the local-IPC client channel does. The rules of all
// client channels are checked in ClientChannel*_test.cpp. Over scripted connectors and a clock that
// is moved by hand.
#include "zarn/utils/CZARNLibClientChannel.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <filesystem>
#include <optional>

#include "NetworkThread.h"
#include "RecordingChannel.h"
#include "TempRoot.h"

namespace zarn::test {
namespace {

using keelbase::AW_ERROR_FAILURE;
using keelbase::AW_ERROR_NOT_INITIALIZED;
using keelbase::AW_OK;
using std::chrono::milliseconds;
using std::chrono::seconds;

class CZARNLibClientChannelRules : public ::testing::Test, public ClientFixture<IpcClientWorld> {};

TEST_F(CZARNLibClientChannelRules, InitMakesTheDirectoryOfTheEndpoints) {
  client->Init(3, 4, 1, 2);
  EXPECT_TRUE(std::filesystem::is_directory(root.GetIpcPath("")));
}

TEST_F(CZARNLibClientChannelRules, InitDoesNotStartTheReconnectTimer) {
  client->Init(3, 4, 1, 2);
  clock.Advance(seconds(10));
  EXPECT_EQ(manager.connectors.size(), 1U);
}

TEST_F(CZARNLibClientChannelRules, InitThatFailsAtOnceReturnsTheErrorAndSchedulesNoRetry) {
  manager.createResult = 10012;
  EXPECT_EQ(client->Init(3, 4, 1, 2), 10012U);
  manager.createResult = AW_OK;
  clock.Advance(seconds(10));
  EXPECT_TRUE(manager.connectors.empty());
}

TEST_F(CZARNLibClientChannelRules, InitWithoutAnInstallRootAnswers10001AndTriesNothing) {
  ScopedEnv none("ZARN_ROOT", std::nullopt);
  EXPECT_EQ(client->Init(3, 4, 1, 2), AW_ERROR_FAILURE);
  clock.Advance(seconds(10));
  EXPECT_EQ(manager.requests, 0);
}

TEST_F(CZARNLibClientChannelRules, InitWithoutAnInstallRootEndsNeitherAConnectionNorAttempts) {
  auto transport = ConnectFully();
  {
    ScopedEnv none("ZARN_ROOT", std::nullopt);
    EXPECT_EQ(client->Init(3, 4, 1, 2), AW_ERROR_FAILURE);
    EXPECT_EQ(client->SendZARNMessage(1, 2, "x", 1), AW_OK);
    transport->End(0);
    EXPECT_EQ(client->Init(3, 4, 1, 2), AW_ERROR_FAILURE);
  }
  CompleteAttemptOfATick();
  EXPECT_TRUE(client->IsConnected());
}

TEST_F(CZARNLibClientChannelRules, RootThatDisappearsWhileRunningIsTriedAgainWhenItIsBack) {
  auto transport = ConnectFully();
  std::filesystem::rename(root.GetPath() + "/system", root.GetPath() + "/away");
  transport->End(0);
  clock.Advance(seconds(1));
  clock.Advance(seconds(1));
  std::filesystem::rename(root.GetPath() + "/away", root.GetPath() + "/system");
  clock.Advance(seconds(1));
  EXPECT_EQ(manager.Last().peer, Endpoint(1, 2));
  CompleteLast();
  EXPECT_EQ(client->SendZARNMessage(1, 2, "x", 1), AW_OK);
}

TEST_F(CZARNLibClientChannelRules, FirstRetryComesASecondAfterTheFailure) {
  client->Init(3, 4, 1, 2);
  clock.Advance(milliseconds(500));
  manager.Last().Complete(ECONNREFUSED, nullptr);
  clock.Advance(milliseconds(999));
  EXPECT_EQ(manager.connectors.size(), 1U);
  clock.Advance(milliseconds(1));
  EXPECT_EQ(manager.connectors.size(), 2U);
}

TEST_F(CZARNLibClientChannelRules, EmptyMessageOnAnUnconnectedClientAnswers10002) {
  EXPECT_EQ(client->SendZARNMessage(1, 2, nullptr, 0), AW_ERROR_NOT_INITIALIZED);
  client->Init(3, 4, 1, 2);
  EXPECT_EQ(client->SendZARNMessage(1, 2, nullptr, 0), AW_ERROR_NOT_INITIALIZED);
}

}  // namespace
}  // namespace zarn::test
