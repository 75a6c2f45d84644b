// CAWSSLManager_test.cpp - connectors and acceptors over real TCP, and over real pseudo-TCP, on the
// loopback address.
#include "sslutils/CAWSSLManager.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <fstream>
#include <string>
#include <utility>
#include <vector>

#include "DescriptorShortage.h"
#include "ExitingChild.h"
#include "RealTcp.h"
#include "RealTls.h"
#include "TempRoot.h"
#include "ptcp/CAWPseudoTCPManager.h"

namespace zarn::test {
namespace {

using keelbase::AW_ERROR_FAILURE;
using keelbase::AW_OK;
using keelbase::AWResult;
using keelbase::CAWAutoPtr;
using keelbase::CAWInetAddr;
using keelbase::CAWMessageBlock;
using namespace sslutils;

const TlsAuthority& Authority() {
  // The library comes first, so that it is the one that starts OpenSSL, as in most programs.
  static const AWResult started = IAWSSLManager::Instance()->SetTrustedCertificates("");
  EXPECT_EQ(started, AW_OK);
  static const TlsAuthority authority;
  return authority;
}

enum class Below { tcp, ptcp };

class CAWSSLManagerTest : public ::testing::TestWithParam<Below> {
 protected:
  CAWSSLManagerTest() {
    EXPECT_EQ(IAWSSLManager::Instance()->SetTrustedCertificates(Authority().GetPem()), AW_OK);
  }
  ~CAWSSLManagerTest() override { IAWSSLManager::Instance()->SetTrustedCertificates(""); }

  // How a connect ends; both sides have been told by then.
  long Connect(TlsServerFixture& server, const char* name = nullptr) {
    const std::size_t before = server.sink.reasons.size();
    client = {};
    EXPECT_EQ(connector->AsyncConnect(&client, server.address, 1, name, nullptr), AW_OK);
    EXPECT_TRUE(client.reasons.empty());
    EXPECT_TRUE(
        Await([&] { return !client.reasons.empty() && server.sink.reasons.size() > before; }));
    return client.reasons.empty() ? -1 : client.reasons[0];
  }
  static CAWSSLInfo InfoOf(const CAWAutoPtr<IAWSSLTransport>& transport) {
    CAWSSLInfo info;
    EXPECT_EQ(transport->GetOption(AW_OPT_SSL_INFO, &info), AW_OK);
    return info;
  }
  // Tickets come after the handshake.
  void ReadTickets() {
    TlsTransportSink sink;
    client.transports[0]->OpenWithSink(&sink);
    for (int i = 0; i < 100; ++i) RunReady();
    client.transports[0]->Disconnect(0);
  }

  static CAWAutoPtr<IAWSSLConnector> MakeConnector() {
    if (GetParam() == Below::tcp) return MakeTlsConnector();
    return CAWAutoPtr<IAWSSLConnector>(new SslPtcpConnector);
  }
  static CAWAutoPtr<IAWSSLAcceptor> MakeAcceptor() {
    return GetParam() == Below::tcp ? MakeTlsAcceptor() : MakeSslPtcpAcceptor();
  }

  CAWAutoPtr<IAWSSLConnector> connector = MakeConnector();
  TlsConnectionSink client;
};

// Clients that connect below TLS and say nothing, one after the other.
class SilentClients {
 public:
  void Connect(int count, Below below, const CAWInetAddr& server) {
    for (int i = 0; i < count; ++i)
      below == Below::tcp ? ConnectByTcp(server) : ConnectByPtcp(server);
  }

 private:
  class PtcpIndications final
      : public RecordingIndicationSink<ptcp::IAWPseudoTCPAcceptorConnectorSink,
                                       ptcp::IAWPseudoTCPTransport,
                                       ptcp::IAWPseudoTCPAcceptorConnectorId> {
    void OnConnectIndication(long reason, ptcp::IAWPseudoTCPTransport* transport,
                             ptcp::IAWPseudoTCPAcceptorConnectorId* id) override {
      Record(reason, transport, id);
    }
  };

  void ConnectByTcp(const CAWInetAddr& server) {
    tcp_.emplace_back().Connect(server);
    RunReady();
  }
  void ConnectByPtcp(const CAWInetAddr& server) {
    CAWAutoPtr<ptcp::IAWPseudoTCPConnector> connector;
    ptcp::CAWPseudoTCPManager::Instance()->CreateConnector(connector);
    EXPECT_EQ(connector->AsyncConnect(&indications_, server, nullptr, nullptr), AW_OK);
    ptcp_.push_back(indications_.Take());
  }

  std::vector<tcp::PlainTcp> tcp_;
  PtcpIndications indications_;
  std::vector<CAWAutoPtr<ptcp::IAWPseudoTCPTransport>> ptcp_;
};

// With a peer that speaks TCP and no TLS.
class CAWSSLManagerAndPlainTcp : public CAWSSLManagerTest {};
INSTANTIATE_TEST_SUITE_P(Over, CAWSSLManagerAndPlainTcp, ::testing::Values(Below::tcp));

INSTANTIATE_TEST_SUITE_P(Over, CAWSSLManagerTest, ::testing::Values(Below::tcp, Below::ptcp),
                         [](const auto& world) {
                           return world.param == Below::tcp ? "Tcp" : "PseudoTcp";
                         });

// --- who is accepted ---

TEST_P(CAWSSLManagerTest, PeerIsVerifiedByItsAddressWhenNoNameIsGiven) {
  TlsServerFixture server(Authority().Issue(), MakeAcceptor());
  server.Listen();
  EXPECT_EQ(Connect(server), 0);
  EXPECT_EQ(server.sink.reasons, std::vector<long>{0});
  EXPECT_TRUE(InfoOf(client.transports[0]).peerVerified);
}

TEST_P(CAWSSLManagerTest, EmptyNameIsNoName) {
  TlsServerFixture server(Authority().Issue(), MakeAcceptor());
  server.Listen();
  EXPECT_EQ(Connect(server, ""), 0);
}

TEST_P(CAWSSLManagerTest, CertificateWithoutTheAddressIsRefusedWhenNoNameIsGiven) {
  CertificateRequest request;
  request.address.clear();
  TlsServerFixture server(Authority().Issue(request), MakeAcceptor());
  server.Listen();
  EXPECT_EQ(Connect(server), AW_SSL_ERROR_CERTIFICATE_NAME);
  EXPECT_EQ(Connect(server, "localhost"), 0);
}

TEST_P(CAWSSLManagerTest, WrongNameIsRefusedAndTheServerIsTold) {
  TlsServerFixture server(Authority().Issue(), MakeAcceptor());
  server.Listen();
  EXPECT_EQ(Connect(server, "other.example"), AW_SSL_ERROR_CERTIFICATE_NAME);
  EXPECT_EQ(server.sink.reasons, std::vector<long>{AW_SSL_ERROR_PEER_REFUSED_CERTIFICATE});
}

TEST_P(CAWSSLManagerTest, ExpiredCertificateIsRefused) {
  CertificateRequest request;
  request.notBefore = -7200;
  request.notAfter = -60;
  TlsServerFixture server(Authority().Issue(request), MakeAcceptor());
  server.Listen();
  EXPECT_EQ(Connect(server), AW_SSL_ERROR_CERTIFICATE_EXPIRED);
}

TEST_P(CAWSSLManagerTest, CertificateOfTheFutureIsRefused) {
  CertificateRequest request;
  request.notBefore = 3600;
  TlsServerFixture server(Authority().Issue(request), MakeAcceptor());
  server.Listen();
  EXPECT_EQ(Connect(server), AW_SSL_ERROR_CERTIFICATE_NOT_YET_VALID);
}

TEST_P(CAWSSLManagerTest, UnknownAuthorityIsRefused) {
  const TlsAuthority other("Another Authority");
  TlsServerFixture server(other.Issue(), MakeAcceptor());
  server.Listen();
  EXPECT_EQ(Connect(server), AW_SSL_ERROR_UNKNOWN_AUTHORITY);
}

TEST_P(CAWSSLManagerTest, CertificateForClientsIsNoneForAServer) {
  CertificateRequest request;
  request.forClients = true;
  TlsServerFixture server(Authority().Issue(request), MakeAcceptor());
  server.Listen();
  EXPECT_EQ(Connect(server), AW_SSL_ERROR_CERTIFICATE_INVALID);
}

TEST_P(CAWSSLManagerTest, ChainModeTakesAnotherNameButNoUnknownAuthority) {
  TlsServerFixture server(Authority().Issue(), MakeAcceptor());
  server.Listen();
  EXPECT_EQ(connector->SetVerifyMode(AW_SSL_VERIFY_CHAIN), AW_OK);
  EXPECT_EQ(Connect(server, "other.example"), 0);
  const TlsAuthority other("Another Authority");
  TlsServerFixture unknown(other.Issue(), MakeAcceptor());
  unknown.Listen();
  EXPECT_EQ(Connect(unknown), AW_SSL_ERROR_UNKNOWN_AUTHORITY);
}

TEST_P(CAWSSLManagerTest, NoneModeTakesAnybody) {
  const TlsAuthority other("Another Authority");
  TlsServerFixture server(other.Issue(), MakeAcceptor());
  server.Listen();
  EXPECT_EQ(connector->SetVerifyMode(AW_SSL_VERIFY_NONE), AW_OK);
  EXPECT_EQ(Connect(server, "other.example"), 0);
  EXPECT_FALSE(InfoOf(client.transports[0]).peerVerified);
}

TEST(CAWSSLManagerOverTcp, ValueZeroAsksForNoVerification) {
  auto connector = MakeTlsConnector();
  TlsConnectionSink client;
  const TlsAuthority other("Another Authority");
  TlsServerFixture server(other.Issue());
  server.Listen();
  ASSERT_EQ(connector->AsyncConnect(&client, server.address, 0, nullptr, nullptr), AW_OK);
  EXPECT_TRUE(Await([&] { return !client.reasons.empty(); }));
  EXPECT_EQ(client.reasons, std::vector<long>{0});
}

TEST(CAWSSLManagerOverTcp, UnknownModesAndValuesAreRefused) {
  auto connector = MakeTlsConnector();
  TlsConnectionSink client;
  EXPECT_EQ(connector->SetVerifyMode(3), AW_ERROR_FAILURE);
  EXPECT_EQ(connector->SetVerifyMode(-1), AW_ERROR_FAILURE);
  const CAWInetAddr nowhere("127.0.0.1", 1);
  EXPECT_EQ(connector->AsyncConnect(&client, nowhere, 2, nullptr, nullptr), AW_ERROR_FAILURE);
  EXPECT_EQ(connector->AsyncConnect(nullptr, nowhere, 1, nullptr, nullptr), AW_ERROR_FAILURE);
}

TEST_P(CAWSSLManagerTest, TrustedCertificatesAreReplacedAndABadTextChangesNothing) {
  TlsServerFixture server(Authority().Issue(), MakeAcceptor());
  server.Listen();
  auto* manager = IAWSSLManager::Instance();
  EXPECT_EQ(manager->SetTrustedCertificates("-----BEGIN nonsense"),
            AWResult{AW_SSL_ERROR_OWN_CERTIFICATE_UNREADABLE});
  EXPECT_EQ(manager->SetTrustedCertificates("/nowhere/at/all"), AWResult{ENOENT});
  EXPECT_EQ(Connect(server), 0);
  EXPECT_EQ(manager->SetTrustedCertificates(""), AW_OK);
  EXPECT_EQ(Connect(server), AW_SSL_ERROR_UNKNOWN_AUTHORITY);
}

TEST_P(CAWSSLManagerTest, AuthorityBelowAnotherIsTrustedWithoutItsRoot) {
  const TlsAuthority below("Authority Below", Authority());
  TlsServerFixture server(below.Issue(), MakeAcceptor());
  server.Listen();
  EXPECT_EQ(IAWSSLManager::Instance()->SetTrustedCertificates(below.GetPem()), AW_OK);
  EXPECT_EQ(Connect(server), 0);
  TlsServerFixture above(Authority().Issue(), MakeAcceptor());
  above.Listen();
  EXPECT_EQ(Connect(above), AW_SSL_ERROR_UNKNOWN_AUTHORITY);
}

TEST_P(CAWSSLManagerTest, ExpiredAuthorityBelowAnotherIsRefused) {
  const TlsAuthority below("Authority Below", Authority(), -60);
  TlsServerFixture server(below.Issue(), MakeAcceptor());
  server.Listen();
  EXPECT_EQ(IAWSSLManager::Instance()->SetTrustedCertificates(below.GetPem()), AW_OK);
  EXPECT_EQ(Connect(server), AW_SSL_ERROR_CERTIFICATE_EXPIRED);
}

TEST_P(CAWSSLManagerTest, ServersOwnCertificateIsTrustedForThatServerOnly) {
  const KeyAndCertificate own = Authority().Issue();
  TlsServerFixture server(own, MakeAcceptor());
  server.Listen();
  EXPECT_EQ(IAWSSLManager::Instance()->SetTrustedCertificates(own.certificate), AW_OK);
  EXPECT_EQ(Connect(server), 0);
  EXPECT_EQ(Connect(server, "other.example"), AW_SSL_ERROR_CERTIFICATE_NAME);
  TlsServerFixture other(Authority().Issue(), MakeAcceptor());
  other.Listen();
  EXPECT_EQ(Connect(other), AW_SSL_ERROR_UNKNOWN_AUTHORITY);
}

TEST_P(CAWSSLManagerTest, TrustedCertificateOfAServerIsStillChecked) {
  CertificateRequest expired;
  expired.notBefore = -7200;
  expired.notAfter = -60;
  CertificateRequest forClients;
  forClients.forClients = true;
  for (const auto& [request, reason] : {std::pair(expired, AW_SSL_ERROR_CERTIFICATE_EXPIRED),
                                        std::pair(forClients, AW_SSL_ERROR_CERTIFICATE_INVALID)}) {
    const KeyAndCertificate own = Authority().Issue(request);
    TlsServerFixture server(own, MakeAcceptor());
    server.Listen();
    EXPECT_EQ(IAWSSLManager::Instance()->SetTrustedCertificates(own.certificate), AW_OK);
    EXPECT_EQ(Connect(server), reason);
  }
}

// --- client certificates ---

TEST_P(CAWSSLManagerTest, ClientOfAnAuthorityBelowAnotherIsAcceptedWithoutItsRoot) {
  const TlsAuthority below("Authority Below", Authority());
  TlsServerFixture server(Authority().Issue(), MakeAcceptor());
  ASSERT_EQ(server.acceptor->SetClientAuthorities(below.GetPem(), true), AW_OK);
  server.Listen();
  for (const auto& [authority, reason] :
       {std::pair(&below, 0L), std::pair(&Authority(), long{AW_SSL_ERROR_UNKNOWN_AUTHORITY})}) {
    const auto own = authority->IssueForClient();
    connector->SetPrivateKey(own.key);
    connector->SetCertificate(own.certificate);
    EXPECT_EQ(Connect(server), 0);
    EXPECT_EQ(server.sink.reasons.back(), reason);
  }
}

TEST_P(CAWSSLManagerTest, ClientWithACertificateOfTheAuthorityIsAcceptedAndNamed) {
  TlsServerFixture server(Authority().Issue(), MakeAcceptor());
  ASSERT_EQ(server.acceptor->SetClientAuthorities(Authority().GetPem(), true), AW_OK);
  server.Listen();
  const auto own = Authority().IssueForClient("alice");
  ASSERT_EQ(connector->SetPrivateKey(own.key), AW_OK);
  ASSERT_EQ(connector->SetCertificate(own.certificate), AW_OK);
  EXPECT_EQ(Connect(server), 0);
  ASSERT_EQ(server.sink.reasons, std::vector<long>{0});
  const CAWSSLInfo info = InfoOf(server.sink.transports[0]);
  EXPECT_TRUE(info.peerVerified);
  EXPECT_EQ(info.peerSubject, "CN = alice");
}

TEST_P(CAWSSLManagerTest, ClientWithoutACertificateIsRefusedWhereOneIsRequired) {
  TlsServerFixture server(Authority().Issue(), MakeAcceptor());
  ASSERT_EQ(server.acceptor->SetClientAuthorities(Authority().GetPem(), true), AW_OK);
  server.Listen();
  EXPECT_EQ(Connect(server), 0);  // with TLS 1.3 the client learns of it afterwards
  EXPECT_EQ(server.sink.reasons, std::vector<long>{AW_SSL_ERROR_CERTIFICATE_MISSING});
  TlsTransportSink sink;
  client.transports[0]->OpenWithSink(&sink);
  EXPECT_TRUE(Await([&] { return sink.ended; }));
  EXPECT_EQ(sink.reason, AW_SSL_ERROR_PEER_REFUSED_CERTIFICATE);
}

TEST_P(CAWSSLManagerTest, ClientWithoutACertificateIsAcceptedWhereNoneIsRequired) {
  TlsServerFixture server(Authority().Issue(), MakeAcceptor());
  ASSERT_EQ(server.acceptor->SetClientAuthorities(Authority().GetPem(), false), AW_OK);
  server.Listen();
  EXPECT_EQ(Connect(server), 0);
  ASSERT_EQ(server.sink.reasons, std::vector<long>{0});
  EXPECT_FALSE(InfoOf(server.sink.transports[0]).peerVerified);
}

TEST_P(CAWSSLManagerTest, ClientOfAnotherAuthorityIsRefused) {
  const TlsAuthority other("Another Authority");
  for (const bool required : {true, false}) {
    TlsServerFixture server(Authority().Issue(), MakeAcceptor());
    ASSERT_EQ(server.acceptor->SetClientAuthorities(Authority().GetPem(), required), AW_OK);
    server.Listen();
    const auto own = other.IssueForClient();
    connector->SetPrivateKey(own.key);
    connector->SetCertificate(own.certificate);
    Connect(server);
    EXPECT_EQ(server.sink.reasons, std::vector<long>{AW_SSL_ERROR_UNKNOWN_AUTHORITY});
  }
}

TEST_P(CAWSSLManagerTest, ClientOfAForgedAuthorityIsToldThatItIsRefused) {
  TlsServerFixture server(Authority().Issue(), MakeAcceptor());
  ASSERT_EQ(server.acceptor->SetClientAuthorities(Authority().GetPem(), true), AW_OK);
  server.Listen();
  const TlsAuthority forger;  // has the name of the true one
  const auto own = forger.IssueForClient();
  connector->SetPrivateKey(own.key);
  connector->SetCertificate(own.certificate);
  EXPECT_EQ(Connect(server), 0);
  EXPECT_EQ(server.sink.reasons, std::vector<long>{AW_SSL_ERROR_CERTIFICATE_INVALID});
  TlsTransportSink sink;
  client.transports[0]->OpenWithSink(&sink);
  EXPECT_TRUE(Await([&] { return sink.ended; }));
  EXPECT_EQ(sink.reason, AW_SSL_ERROR_REFUSED);
}

TEST_P(CAWSSLManagerTest, ClientAuthoritiesThatCannotBeReadStopTheListen) {
  TlsServerFixture server(Authority().Issue(), MakeAcceptor());
  EXPECT_EQ(server.acceptor->SetClientAuthorities("/nowhere/at/all", true), AWResult{ENOENT});
  EXPECT_EQ(server.acceptor->StartListen(&server.sink, CAWInetAddr("127.0.0.1", 0), 1),
            AWResult{ENOENT});
}

// --- keys and certificates ---

std::string WriteFile(const TempDir& dir, const std::string& name, const std::string& text) {
  std::string path = dir.GetPath() + "/" + name;
  std::ofstream(path) << text;
  return path;
}

struct BadText {
  const char* what;
  std::string key;
  std::string certificate;
  long reason;
};

TEST_P(CAWSSLManagerTest, EachBadKeyOrCertificateHasItsReasonOnBothSides) {
  const TempDir dir;
  const auto own = Authority().Issue();
  const auto other = Authority().Issue();
  const BadText cases[] = {
      {"mismatch", other.key, own.certificate, AW_SSL_ERROR_KEY_MISMATCH},
      {"encrypted", TlsAuthority::MakeKeyPem("secret"), own.certificate,
       AW_SSL_ERROR_KEY_ENCRYPTED},
      {"no key in it", own.certificate, own.certificate, AW_SSL_ERROR_KEY_UNREADABLE},
      {"no certificate in it", own.key, own.key, AW_SSL_ERROR_OWN_CERTIFICATE_UNREADABLE},
      {"no such file", dir.GetPath() + "/none.pem", own.certificate, ENOENT},
      {"a directory", own.key, dir.GetPath(), EISDIR},
      {"a device", "/dev/null", own.certificate, EINVAL},
      {"too long a text", own.key, own.certificate + std::string(1 << 20, '\n'), EFBIG},
      {"too long a file", WriteFile(dir, "long.pem", std::string((1 << 20) + 1, 'x')),
       own.certificate, EFBIG},
      {"cut", own.key, own.certificate + own.certificate.substr(0, 200),
       AW_SSL_ERROR_OWN_CERTIFICATE_UNREADABLE},
  };
  for (const BadText& bad : cases) {
    SCOPED_TRACE(bad.what);
    auto acceptor = MakeAcceptor();
    acceptor->SetPrivateKey(bad.key);
    acceptor->SetCertificate(bad.certificate);
    TlsConnectionSink sink;
    EXPECT_EQ(acceptor->StartListen(&sink, CAWInetAddr("127.0.0.1", 0), 1),
              static_cast<AWResult>(bad.reason));
    auto connecting = MakeConnector();
    connecting->SetPrivateKey(bad.key);
    connecting->SetCertificate(bad.certificate);
    ASSERT_EQ(connecting->AsyncConnect(&sink, CAWInetAddr("127.0.0.1", 1), 1, nullptr, nullptr),
              AW_OK);
    EXPECT_TRUE(sink.reasons.empty());
    EXPECT_TRUE(Await([&] { return !sink.reasons.empty(); }));
    EXPECT_EQ(sink.reasons, std::vector<long>{bad.reason});
  }
}

TEST_P(CAWSSLManagerTest, CertificateWithoutAKeyIsRefused) {
  auto acceptor = MakeAcceptor();
  acceptor->SetCertificate(Authority().Issue().certificate);
  TlsConnectionSink sink;
  EXPECT_EQ(acceptor->StartListen(&sink, CAWInetAddr("127.0.0.1", 0), 1),
            AWResult{AW_SSL_ERROR_KEY_MISSING});
}

TEST_P(CAWSSLManagerTest, ListenWithoutACertificateIsRefused) {
  auto acceptor = MakeAcceptor();
  TlsConnectionSink sink;
  EXPECT_EQ(acceptor->StartListen(&sink, CAWInetAddr("127.0.0.1", 0), 1),
            AWResult{AW_SSL_ERROR_OWN_CERTIFICATE_MISSING});
}

TEST_P(CAWSSLManagerTest, KeyAloneIsNoIdentityAndNoError) {
  TlsServerFixture server(Authority().Issue(), MakeAcceptor());
  server.Listen();
  EXPECT_EQ(connector->SetPrivateKey(TlsAuthority::MakeKeyPem()), AW_OK);
  EXPECT_EQ(Connect(server), 0);
}

TEST_P(CAWSSLManagerTest, TextsMayBePathsOfFiles) {
  const TempDir dir;
  const auto own = Authority().Issue();
  auto acceptor = MakeAcceptor();
  EXPECT_EQ(acceptor->SetPrivateKey(WriteFile(dir, "key.pem", own.key)), AW_OK);
  EXPECT_EQ(acceptor->SetCertificate(WriteFile(dir, "cert.pem", own.certificate)), AW_OK);
  TlsConnectionSink sink;
  EXPECT_EQ(acceptor->StartListen(&sink, CAWInetAddr("127.0.0.1", 0), 1), AW_OK);
  EXPECT_EQ(acceptor->StartListen(&sink, CAWInetAddr("127.0.0.1", 0), 1), AW_ERROR_FAILURE);
  acceptor->StopListen();
  EXPECT_EQ(acceptor->GetLocalAddr(), CAWInetAddr());
}

// --- sessions ---

TEST_P(CAWSSLManagerTest, SecondConnectionResumesTheSession) {
  TlsServerFixture server(Authority().Issue(), MakeAcceptor());
  server.Listen();
  ASSERT_EQ(Connect(server), 0);
  EXPECT_FALSE(InfoOf(client.transports[0]).resumed);
  ReadTickets();
  ASSERT_EQ(Connect(server), 0);
  EXPECT_TRUE(InfoOf(client.transports[0]).resumed);
  EXPECT_TRUE(InfoOf(client.transports[0]).peerVerified);
}

TEST_P(CAWSSLManagerTest, SessionIsNotResumedForAnotherName) {
  TlsServerFixture server(Authority().Issue(), MakeAcceptor());
  server.Listen();
  ASSERT_EQ(Connect(server), 0);
  ReadTickets();
  ASSERT_EQ(Connect(server, "localhost"), 0);
  EXPECT_FALSE(InfoOf(client.transports[0]).resumed);
  EXPECT_EQ(Connect(server, "other.example"), AW_SSL_ERROR_CERTIFICATE_NAME);
}

TEST_P(CAWSSLManagerTest, SessionOfARelaxedModeIsNotResumedByAStrictOne) {
  TlsServerFixture server(Authority().Issue(), MakeAcceptor());
  server.Listen();
  connector->SetVerifyMode(AW_SSL_VERIFY_NONE);
  ASSERT_EQ(Connect(server, "other.example"), 0);
  ReadTickets();
  connector->SetVerifyMode(AW_SSL_VERIFY_FULL);
  EXPECT_EQ(Connect(server, "other.example"), AW_SSL_ERROR_CERTIFICATE_NAME);
}

TEST_P(CAWSSLManagerTest, SessionIsNotResumedOnceTheTrustedCertificatesHaveChanged) {
  TlsServerFixture server(Authority().Issue(), MakeAcceptor());
  server.Listen();
  ASSERT_EQ(Connect(server), 0);
  ReadTickets();
  IAWSSLManager::Instance()->SetTrustedCertificates("");
  EXPECT_EQ(Connect(server), AW_SSL_ERROR_UNKNOWN_AUTHORITY);
}

TEST_P(CAWSSLManagerTest, SessionIsNotResumedWithAnotherCertificateOfOurOwn) {
  TlsServerFixture server(Authority().Issue(), MakeAcceptor());
  server.acceptor->SetClientAuthorities(Authority().GetPem(), false);
  server.Listen();
  ASSERT_EQ(Connect(server), 0);
  ReadTickets();
  const auto own = Authority().IssueForClient("bob");
  connector->SetPrivateKey(own.key);
  connector->SetCertificate(own.certificate);
  ASSERT_EQ(Connect(server), 0);
  EXPECT_FALSE(InfoOf(client.transports[0]).resumed);
  EXPECT_EQ(InfoOf(server.sink.transports.back()).peerSubject, "CN = bob");
}

TEST_P(CAWSSLManagerTest, ServerThatHasStartedAnewShakesHandsInFull) {
  const auto own = Authority().Issue();
  TlsServerFixture first(own, MakeAcceptor());
  first.Listen();
  ASSERT_EQ(Connect(first), 0);
  ReadTickets();
  first.acceptor->StopListen();
  TlsServerFixture second(own, MakeAcceptor());
  ASSERT_EQ(second.acceptor->StartListen(&second.sink, first.address, 16), AW_OK);
  second.address = first.address;
  ASSERT_EQ(Connect(second), 0);
  EXPECT_FALSE(InfoOf(client.transports[0]).resumed);
}

// --- connecting ---

TEST_P(CAWSSLManagerTest, ConnectThatFindsNobodyIsIndicatedOnceWithItsReason) {
  TlsServerFixture server(Authority().Issue(), MakeAcceptor());
  server.Listen();
  server.acceptor->StopListen();
  ASSERT_EQ(connector->AsyncConnect(&client, server.address, 1, nullptr, nullptr), AW_OK);
  EXPECT_EQ(connector->AsyncConnect(&client, server.address, 1, nullptr, nullptr),
            AW_ERROR_FAILURE);
  EXPECT_TRUE(Await([&] { return !client.reasons.empty(); }));
  EXPECT_EQ(client.reasons, std::vector<long>{ECONNREFUSED});
}

TEST_P(CAWSSLManagerTest, CancelledConnectIsNotIndicated) {
  TlsServerFixture server(Authority().Issue(), MakeAcceptor());
  server.Listen();
  ASSERT_EQ(connector->AsyncConnect(&client, server.address, 1, nullptr, nullptr), AW_OK);
  EXPECT_EQ(connector->Cancel(0), AW_OK);
  for (int i = 0; i < 20; ++i) RunReady();
  EXPECT_TRUE(client.reasons.empty());
  EXPECT_EQ(Connect(server), 0);  // and may be used again
}

TEST_P(CAWSSLManagerTest, CancelDuringTheHandshakeIsNotIndicated) {
  TlsServerFixture server(Authority().Issue(), MakeAcceptor());
  server.Listen();
  ASSERT_EQ(connector->AsyncConnect(&client, server.address, 1, nullptr, nullptr), AW_OK);
  auto* network =
      keelbase::CAWThreadManager::Instance()->GetThread(keelbase::CAWThreadManager::TT_NETWORK);
  network->TEST_RunReady();
  connector = nullptr;  // the last reference
  for (int i = 0; i < 20; ++i) RunReady();
  EXPECT_TRUE(client.transports.empty() || client.reasons[0] == 0);
  EXPECT_LE(client.reasons.size(), 1U);
}

TEST_P(CAWSSLManagerTest, TransportThatNobodyTakesIsClosed) {
  TlsServerFixture server(Authority().Issue(), MakeAcceptor());
  server.Listen();
  client.keep = false;
  ASSERT_EQ(connector->AsyncConnect(&client, server.address, 1, nullptr, nullptr), AW_OK);
  EXPECT_TRUE(Await([&] { return server.sink.transports.size() == 1; }));
  TlsTransportSink sink;
  server.sink.transports[0]->OpenWithSink(&sink);
  EXPECT_TRUE(Await([&] { return sink.ended; }));
  EXPECT_EQ(sink.reason, 0);
}

TEST_P(CAWSSLManagerTest, AForkedChildThatExitsTouchesNoConnectionOfItsParent) {
  TlsServerFixture server(Authority().Issue(), MakeAcceptor());
  server.Listen();
  ASSERT_EQ(Connect(server), 0);
  TlsTransportSink sink;
  server.sink.transports[0]->OpenWithSink(&sink);
  std::string sent;
  for (std::size_t size = 16 * 1024 - 1; size < 100'000; size += 16 * 1024) {  // of whole records
    const std::string text = Pattern(size);
    CAWMessageBlock block(text.data(), text.size(), CAWMessageBlock::borrow);
    client.transports[0]->SendData(block, nullptr);
    sent.append(text, 0, size - block.GetChainedLength());
    EXPECT_TRUE(ExitInChild([&] {
      client.transports[0]->Disconnect(0);
      client.transports.clear();
    }));
    ASSERT_TRUE(Await([&] { return sink.received.size() == sent.size(); }));
  }
  EXPECT_TRUE(sink.received == sent);
  EXPECT_FALSE(sink.ended);
}

// --- peers that are silent or talk nonsense ---

TEST_P(CAWSSLManagerAndPlainTcp, SilentClientIsGivenUpAfterTenSecondsAndOthersAreServed) {
  HandClock clock;
  TlsServerFixture server(Authority().Issue());
  server.Listen();
  tcp::PlainTcp silent;
  silent.Connect(server.address);
  EXPECT_EQ(Connect(server), 0);
  clock.Advance(std::chrono::milliseconds(9900));
  EXPECT_EQ(server.sink.reasons, std::vector<long>{0});
  clock.Advance(std::chrono::milliseconds(200));
  EXPECT_EQ(server.sink.reasons, (std::vector<long>{0, AW_SSL_ERROR_HANDSHAKE_TIME}));
  EXPECT_EQ(Connect(server), 0);
}

TEST_P(CAWSSLManagerTest, OldestSilentClientMakesRoomForANewOneOfItsAddress) {
  const HandClock clock;  // none of them is given up for its time
  TlsServerFixture server(Authority().Issue(), MakeAcceptor());
  server.Listen();
  SilentClients silent;
  silent.Connect(256, GetParam(), server.address);
  EXPECT_TRUE(server.sink.reasons.empty());
  const CAWInetAddr elsewhere("127.0.0.2", 0);
  ASSERT_EQ(connector->AsyncConnect(&client, server.address, 1, nullptr, &elsewhere), AW_OK);
  EXPECT_TRUE(Await([&] { return !client.reasons.empty() && !server.sink.reasons.empty(); }));
  EXPECT_EQ(server.sink.reasons, std::vector<long>{0});
  EXPECT_EQ(Connect(server), 0);
  EXPECT_TRUE(Await([&] { return server.sink.reasons.size() == 3; }));
  EXPECT_EQ(server.sink.reasons, (std::vector<long>{0, ECONNABORTED, 0}));
}

TEST_P(CAWSSLManagerTest, SilentClientsLeaveHalfOfTheDescriptorsFree) {
  const HandClock clock;
  TlsServerFixture server(Authority().Issue(), MakeAcceptor());
  {
    const DescriptorLimit limit(200);
    server.Listen();
  }
  SilentClients silent;
  silent.Connect(100, GetParam(), server.address);
  EXPECT_TRUE(server.sink.reasons.empty());
  const CAWInetAddr elsewhere("127.0.0.2", 0);
  ASSERT_EQ(connector->AsyncConnect(&client, server.address, 1, nullptr, &elsewhere), AW_OK);
  EXPECT_TRUE(Await([&] { return !client.reasons.empty() && server.sink.reasons.size() == 2; }));
  EXPECT_EQ(client.reasons, std::vector<long>{0});
  EXPECT_EQ(server.sink.reasons, (std::vector<long>{ECONNABORTED, 0}));
}

TEST_P(CAWSSLManagerAndPlainTcp, RefusedClientsThatStayLeaveHalfOfTheDescriptorsFree) {
  const HandClock clock;
  TlsServerFixture server(Authority().Issue());
  {
    const DescriptorLimit limit(200);
    server.Listen();
  }
  // No first message of a handshake, and more than one event reads.
  const std::string bad = std::string("\x16\x03\x01\x00\x04\xff\x00\x00\x00", 9) + Pattern(200000);
  const std::size_t before = OpenDescriptors();
  std::vector<tcp::PlainTcp> clients;
  for (int i = 0; i < 120; ++i) {
    clients.emplace_back().Connect(server.address);
    clients.back().Send(bad);
    RunReady();
  }
  EXPECT_TRUE(Await([&] { return server.sink.reasons.size() == clients.size(); }));
  EXPECT_EQ(server.sink.reasons, std::vector<long>(clients.size(), AW_SSL_ERROR_HANDSHAKE));
  EXPECT_LE(OpenDescriptors(), before + clients.size() + 100);
}

TEST_P(CAWSSLManagerTest, LargerBacklogHasRoomForMoreHandshakes) {
  const HandClock clock;
  TlsServerFixture server(Authority().Issue(), MakeAcceptor());
  ASSERT_EQ(server.acceptor->StartListen(&server.sink, CAWInetAddr("127.0.0.1", 0), 257), AW_OK);
  server.address = server.acceptor->GetLocalAddr();
  SilentClients silent;
  silent.Connect(256, GetParam(), server.address);
  EXPECT_EQ(Connect(server), 0);
  EXPECT_EQ(server.sink.reasons, std::vector<long>{0});
}

TEST_P(CAWSSLManagerAndPlainTcp, SilentServerIsGivenUpAfterTenSeconds) {
  HandClock clock;
  const tcp::PlainListener silent;
  ASSERT_EQ(connector->AsyncConnect(&client, silent.LocalAddress(), 1, nullptr, nullptr), AW_OK);
  RunReady();
  clock.Advance(std::chrono::milliseconds(9900));
  EXPECT_TRUE(client.reasons.empty());
  clock.Advance(std::chrono::milliseconds(200));
  EXPECT_EQ(client.reasons, std::vector<long>{AW_SSL_ERROR_HANDSHAKE_TIME});
}

TEST_P(CAWSSLManagerAndPlainTcp, ClientThatTalksNonsenseEndsNoOtherConnection) {
  TlsServerFixture server(Authority().Issue());
  server.Listen();
  ASSERT_EQ(Connect(server), 0);
  TlsTransportSink kept;
  server.sink.transports[0]->OpenWithSink(&kept);
  tcp::PlainTcp other;
  other.Connect(server.address);
  other.Send("GET / HTTP/1.1\r\n\r\n");
  EXPECT_TRUE(Await([&] { return server.sink.reasons.size() == 2; }));
  EXPECT_EQ(server.sink.reasons.back(), AW_SSL_ERROR_HANDSHAKE);
  CAWMessageBlock block("unharmed", 8, CAWMessageBlock::borrow);
  EXPECT_EQ(client.transports[0]->SendData(block, nullptr), AW_OK);
  EXPECT_TRUE(Await([&] { return kept.received == "unharmed"; }));
  EXPECT_FALSE(kept.ended);
}

// --- transports ---

TEST_P(CAWSSLManagerTest, TransportsKnowBothAddresses) {
  TlsServerFixture server(Authority().Issue(), MakeAcceptor());
  server.Listen();
  ASSERT_EQ(Connect(server), 0);
  CAWInetAddr peer;
  CAWInetAddr local;
  CAWInetAddr seen;
  client.transports[0]->GetOption(keelbase::AW_OPT_PEER_ADDRESS, &peer);
  client.transports[0]->GetOption(keelbase::AW_OPT_LOCAL_ADDRESS, &local);
  server.sink.transports[0]->GetOption(keelbase::AW_OPT_PEER_ADDRESS, &seen);
  EXPECT_EQ(peer, server.address);
  EXPECT_EQ(local, seen);
}

TEST_P(CAWSSLManagerTest, ClientThatSendsAndLeavesAtOnceLosesNothing) {
  TlsServerFixture server(Authority().Issue(), MakeAcceptor());
  server.Listen();
  const std::string all(5 << 20, 'x');
  client.keep = false;
  client.onConnected = [&](IAWSSLTransport* transport) {
    CAWMessageBlock block(all.data(), all.size(), CAWMessageBlock::borrow);
    std::uint32_t linger = 60000;
    transport->SetOption(keelbase::AW_OPT_LINGER, &linger);
    transport->SendData(block, nullptr);
    transport->SetOption(keelbase::AW_OPT_LINGER_DATA, &block);
    transport->Disconnect(0);
  };
  TlsTransportSink sink;
  server.sink.onConnected = [&](IAWSSLTransport* transport) { transport->OpenWithSink(&sink); };
  ASSERT_EQ(connector->AsyncConnect(&client, server.address, 1, nullptr, nullptr), AW_OK);
  EXPECT_TRUE(Await([&] { return sink.ended; }));
  EXPECT_EQ(sink.received.size(), all.size());
  EXPECT_EQ(sink.reason, 0);
}

TEST(CAWSSLManagerOverTcp, AnotherManagerCanBePutInPlace) {
  class Fake final : public IAWSSLManager {
   public:
    AWResult CreateSSLConnector(CAWAutoPtr<IAWSSLConnector>&) override { return 77; }
    AWResult CreateSSLAcceptor(CAWAutoPtr<IAWSSLAcceptor>&) override { return 77; }
    AWResult SetTrustedCertificates(const keelbase::CAWString&) override { return 77; }
  } fake;
  IAWSSLManager* const real = IAWSSLManager::Instance();
  IAWSSLManager::TEST_SetInstance(&fake);
  EXPECT_EQ(IAWSSLManager::Instance(), &fake);
  IAWSSLManager::TEST_SetInstance(nullptr);
  EXPECT_EQ(IAWSSLManager::Instance(), real);
}

TEST(CAWSSLError, EachReasonHasATextOfItsOwn) {
  std::vector<std::string> texts;
  for (long reason = 10101; reason <= 10136; ++reason) {
    const std::string text = DescribeSSLResult(reason);
    if (text != "Code " + std::to_string(reason)) texts.push_back(text);
  }
  EXPECT_EQ(texts.size(), 20U);
  std::sort(texts.begin(), texts.end());
  EXPECT_EQ(std::unique(texts.begin(), texts.end()), texts.end());
  EXPECT_EQ(DescribeSSLResult(ECONNREFUSED), keelbase::DescribeResult(ECONNREFUSED));
}

}  // namespace
}  // namespace zarn::test
