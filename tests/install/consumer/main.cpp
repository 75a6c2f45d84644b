// main.cpp - a program outside the tree: one call into each library it links.
#include <json/value.h>

#include <cstdint>
#include <cstdio>

#include "fipc/CAWIPCManager.h"
#include "fshmipc/CAWShmIPCAddr.h"
#include "keelbase/CAWError.h"
#include "ptcp/CAWPseudoTCPManager.h"
#include "sslptcp/CAWSSLPTCPManager.h"
#include "sslutils/CAWSSLManager.h"
#include "wface/CAWConnectionManager.h"
#include "zarn/utils/CZARNNode.h"
#include "zarn/utils/zarnutils.h"

int main() {
  std::uint16_t low = 0;
  std::uint16_t high = 0;
  zarn::utils::FromJno(zarn::utils::MakeJno(1, 2), low, high);
  Json::Value json;
  zarn::utils::CZARNNode().ToJson(json);
  const bool usable = json.size() == 15 &&
                      zarn::utils::GetHashKey(fshmipc::CAWShmIPCAddr(1, 2)) != 0 &&
                      fipc::CAWIPCManager::Instance() != nullptr &&
                      ptcp::CAWPseudoTCPManager::Instance() != nullptr &&
                      wface::CAWConnectionManager::Instance() != nullptr &&
                      sslptcp::IAWSSLPTCPManager::Instance() != nullptr &&
                      sslutils::IAWSSLManager::Instance() != nullptr &&
                      !keelbase::DescribeResult(keelbase::AW_ERROR_FAILURE).empty();
  std::printf("%d_%d\n", low, high);
  return usable ? 0 : 1;
}
