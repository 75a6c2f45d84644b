// RealTls.h - real TLS for tests: sinks that record, a connector and a listener.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "FakeTransport.h"
#include "RealTransport.h"
#include "TlsAuthority.h"
#include "sslptcp/CAWSSLPTCPManager.h"
#include "sslutils/CAWSSLManager.h"

namespace zarn::test {

class TlsTransportSink final : public sslutils::IAWSSLTransportSink {
 public:
  void OnSSLDataReceive(keelbase::CAWMessageBlock& data,
                        sslutils::IAWSSLTransport* transport) override {
    EXPECT_FALSE(ended);
    received += data.FlattenChained();
    if (onReceive) onReceive(transport);
  }
  void OnSSLDisconnect(long why, sslutils::IAWSSLTransport*) override {
    EXPECT_FALSE(ended);
    ended = true;
    reason = why;
  }
  void OnSSLDataSend(sslutils::IAWSSLTransport* transport) override {
    EXPECT_FALSE(ended);
    if (onSend) onSend(transport);
  }

  std::string received;
  bool ended = false;
  long reason = -1;
  std::function<void(sslutils::IAWSSLTransport*)> onReceive;
  std::function<void(sslutils::IAWSSLTransport*)> onSend;
};

class TlsConnectionSink final : public sslutils::IAWSSLConnectionSink {
 public:
  void OnSSLConnected(long reason, sslutils::IAWSSLTransport* transport) override {
    EXPECT_EQ(reason == 0, transport != nullptr);
    reasons.push_back(reason);
    if (keep && transport != nullptr) transports.emplace_back(transport);
    if (onConnected) onConnected(transport);
  }

  std::vector<long> reasons;
  std::vector<keelbase::CAWAutoPtr<sslutils::IAWSSLTransport>> transports;
  bool keep = true;
  std::function<void(sslutils::IAWSSLTransport*)> onConnected;
};

inline keelbase::CAWAutoPtr<sslutils::IAWSSLConnector> MakeTlsConnector() {
  keelbase::CAWAutoPtr<sslutils::IAWSSLConnector> out;
  EXPECT_EQ(sslutils::IAWSSLManager::Instance()->CreateSSLConnector(out), keelbase::AW_OK);
  return out;
}
inline keelbase::CAWAutoPtr<sslutils::IAWSSLAcceptor> MakeTlsAcceptor() {
  keelbase::CAWAutoPtr<sslutils::IAWSSLAcceptor> out;
  EXPECT_EQ(sslutils::IAWSSLManager::Instance()->CreateSSLAcceptor(out), keelbase::AW_OK);
  return out;
}

// The connector of TLS over pseudo-TCP in the shape of the one over TCP.
class SslPtcpConnector final : public FakeCounted<sslutils::IAWSSLConnector> {
 public:
  SslPtcpConnector() : FakeCounted(nullptr) {
    EXPECT_EQ(sslptcp::IAWSSLPTCPManager::Instance()->CreateConnector(real_), keelbase::AW_OK);
  }
  keelbase::AWResult SetPrivateKey(const keelbase::CAWString& text) override {
    return real_->SetPrivateKey(text);
  }
  keelbase::AWResult SetCertificate(const keelbase::CAWString& text) override {
    return real_->SetCertificate(text);
  }
  keelbase::AWResult SetVerifyMode(int mode) override { return real_->SetVerifyMode(mode); }
  keelbase::AWResult AsyncConnect(sslutils::IAWSSLConnectionSink* sink,
                                  const keelbase::CAWInetAddr& peer, int verify,
                                  const char* serverName,
                                  const keelbase::CAWInetAddr* local) override {
    EXPECT_EQ(verify, 1);
    return real_->AsyncConnect(sink, peer, serverName, local);
  }
  keelbase::AWResult Cancel(long reason) override { return real_->Cancel(reason); }

 private:
  keelbase::CAWAutoPtr<sslptcp::IAWSSLPTCPConnector> real_;
};

inline keelbase::CAWAutoPtr<sslutils::IAWSSLAcceptor> MakeSslPtcpAcceptor() {
  keelbase::CAWAutoPtr<sslutils::IAWSSLAcceptor> out;
  EXPECT_EQ(sslptcp::IAWSSLPTCPManager::Instance()->CreateAcceptor(out), keelbase::AW_OK);
  return out;
}

// A listener with a certificate, on a free port of the loopback address.
struct TlsServerFixture {
  explicit TlsServerFixture(
      const KeyAndCertificate& own,
      keelbase::CAWAutoPtr<sslutils::IAWSSLAcceptor> listening = MakeTlsAcceptor())
      : acceptor(std::move(listening)) {
    EXPECT_EQ(acceptor->SetPrivateKey(own.key), keelbase::AW_OK);
    EXPECT_EQ(acceptor->SetCertificate(own.certificate), keelbase::AW_OK);
  }
  ~TlsServerFixture() { acceptor->StopListen(); }
  void Listen() {
    ASSERT_EQ(acceptor->StartListen(&sink, keelbase::CAWInetAddr("127.0.0.1", 0), 16),
              keelbase::AW_OK);
    address = acceptor->GetLocalAddr();
  }

  TlsConnectionSink sink;
  keelbase::CAWAutoPtr<sslutils::IAWSSLAcceptor> acceptor;
  keelbase::CAWInetAddr address;
};

}  // namespace zarn::test
