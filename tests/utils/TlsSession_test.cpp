// TlsSession_test.cpp - key and certificate of the sessions with TLS, over TCP and over pseudo-TCP.
// Over scripted transports.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "NetworkThread.h"
#include "SessionFixture.h"

namespace zarn::test {
namespace {

using keelbase::AW_ERROR_FAILURE;
using keelbase::AW_OK;

template <class World>
class TlsSessionRules : public ::testing::Test, public SessionFixture<World> {
 protected:
  // What happens in a connect after one that failed, but for the end of that one.
  CallLog LaterConnect() {
    this->Connect();
    this->manager.Last().Complete(AW_ERROR_FAILURE, nullptr);
    this->log.clear();
    this->Connect();
    EXPECT_EQ(this->log.front(), "connector.CancelConnect");
    return {this->log.begin() + 1, this->log.end()};
  }
};

TYPED_TEST_SUITE(TlsSessionRules, TlsSessionWorlds, WorldNames);

TYPED_TEST(TlsSessionRules, NoKeyAndNoCertificateAreNotHandedOver) {
  this->Connect();
  EXPECT_EQ(this->log, CallLog{"connector.AsyncConnect"});
}

TYPED_TEST(TlsSessionRules, KeyWithoutCertificateIsHandedOverAlone) {
  EXPECT_EQ(this->stream->PrivateKey("a key"), AW_OK);
  this->Connect();
  EXPECT_EQ(this->log, (CallLog{"connector.SetPrivateKey(a key)", "connector.AsyncConnect"}));
}

TYPED_TEST(TlsSessionRules, CertificateWithoutKeyIsHandedOverAlone) {
  EXPECT_EQ(this->stream->Certificate("a certificate"), AW_OK);
  this->Connect();
  EXPECT_EQ(this->log,
            (CallLog{"connector.SetCertificate(a certificate)", "connector.AsyncConnect"}));
}

TYPED_TEST(TlsSessionRules, KeyIsHandedOverBeforeTheCertificateExactlyAsSetAndEachTime) {
  std::string key = "first\n key ";
  this->stream->PrivateKey(key);
  this->stream->Certificate("certificate");
  key = "changed later";  // it was copied
  const CallLog once = {"connector.SetPrivateKey(first\n key )",
                        "connector.SetCertificate(certificate)", "connector.AsyncConnect"};
  this->Connect();
  EXPECT_EQ(this->log, once);
  EXPECT_EQ(this->LaterConnect(), once);
  this->stream->PrivateKey("");
  EXPECT_EQ(this->LaterConnect(),
            (CallLog{"connector.SetCertificate(certificate)", "connector.AsyncConnect"}));
}

TYPED_TEST(TlsSessionRules, ManagerThatMakesNothingAnswers10001) {
  this->stream->Close(0);
  this->manager.makesNothing = true;
  EXPECT_EQ(this->Connect(), AW_ERROR_FAILURE);
  EXPECT_TRUE(this->stream->IsClose());
}

TYPED_TEST(TlsSessionRules, PendingConnectIsCancelledWithZero) {
  this->Connect();
  this->Connect(2);
  EXPECT_EQ(this->manager.connectors[0]->cancelReasons, std::vector<long>{0});
}

TYPED_TEST(TlsSessionRules, RefusedCertificateIsReportedAsPeerDisconnectWithItsReason) {
  this->Connect();
  this->manager.Last().Complete(sslutils::AW_SSL_ERROR_CERTIFICATE_EXPIRED, nullptr);
  EXPECT_TRUE(this->stream->IsClose());
  EXPECT_EQ(this->stream->upcalls, std::vector<std::string>{"OnPeerDisconnect(10111)"});
  EXPECT_EQ(this->manager.Last().cancels, 0);
}

}  // namespace
}  // namespace zarn::test
