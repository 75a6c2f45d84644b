// TransportsAllocations_test.cpp - each allocation on the way of a connection fails in turn, over
// each transport: on the thread that calls, which is the loop's own. Both sides hear how it went,
// and the listener goes on. Real sockets.
#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <string>

#include "FailingAllocations.h"
#include "RealShmIpc.h"
#include "RealTls.h"
#include "TlsAuthority.h"
#include "TraceLines.h"
#include "ptcp/CAWPseudoTCPManager.h"
#include "wface/CAWConnectionManager.h"

namespace zarn::test {
namespace {

using keelbase::CAWInetAddr;

// --- the transports ---

template <class SinkInterface, class TransportInterface, class Parameter>
struct PlainSink : SinkInterface {
  virtual void Received(std::size_t length) = 0;
  virtual void Ended(long reason) = 0;

  void OnReceive(CAWMessageBlock& data, TransportInterface*, Parameter*) override {
    Received(data.GetChainedLength());
  }
  void OnSend(TransportInterface*, Parameter*) override {}
  void OnDisconnect(long reason, TransportInterface*) override { Ended(reason); }
};

struct IpcLink {
  static constexpr const char* kName = "LocalIpc";
  using Transport = fipc::IAWIPCTransport;
  using Connector = fipc::IAWIPCConnector;
  using Acceptor = fipc::IAWIPCAcceptor;
  using Sink = PlainSink<fipc::IAWIPCTransportSink, Transport, fipc::CAWIPCTransportParameter>;
  struct ConnectSink : fipc::IAWIPCAcceptorConnectorSink {
    virtual void Told(long reason, Transport* transport) = 0;
    void OnIPCConnectIndication(long reason, Transport* transport,
                                fipc::IAWIPCAcceptorConnectorId*) override {
      Told(reason, transport);
    }
  };

  static AWResult Make(CAWAutoPtr<Connector>& out) {
    return fipc::CAWIPCManager::Instance()->CreateConnector(1, out);
  }
  static AWResult Make(CAWAutoPtr<Acceptor>& out) {
    return fipc::CAWIPCManager::Instance()->CreateAcceptor(1, out);
  }
  AWResult Listen(Acceptor& acceptor, ConnectSink& sink) {
    return acceptor.StartListen(&sink, address);
  }
  AWResult Connect(Connector& connector, ConnectSink& sink, Acceptor&) {
    return connector.AsyncConnect(&sink, address, 0, nullptr);
  }

  TempDir dir;
  CAWIPCAddr address{dir.GetPath() + "/1_2"};
};

struct ShmLink {
  static constexpr const char* kName = "SharedMemory";
  using Transport = fshmipc::IAWShmIPCTransport;
  using Connector = fshmipc::IAWShmIPCConnector;
  using Acceptor = fshmipc::IAWShmIPCAcceptor;
  using Sink =
      PlainSink<fshmipc::IAWShmIPCTransportSink, Transport, fshmipc::CAWShmIPCTransportParameter>;
  struct ConnectSink : fshmipc::IAWShmIPCAcceptorConnectorSink {
    virtual void Told(long reason, Transport* transport) = 0;
    void OnShmIPCConnectIndication(long reason, Transport* transport,
                                   fshmipc::IAWShmIPCAcceptorConnectorId*) override {
      Told(reason, transport);
    }
  };

  static AWResult Make(CAWAutoPtr<Connector>& out) {
    return fshmipc::CAWShmIPCManager::Instance()->CreateConnector(out);
  }
  static AWResult Make(CAWAutoPtr<Acceptor>& out) {
    return fshmipc::CAWShmIPCManager::Instance()->CreateAcceptor(out);
  }
  static AWResult Listen(Acceptor& acceptor, ConnectSink& sink) {
    return acceptor.StartListen(&sink, kShmServer);
  }
  static AWResult Connect(Connector& connector, ConnectSink& sink, Acceptor&) {
    return connector.AsyncConnect(&sink, kShmServer, 0, &kShmClient);
  }

  ShmSystem system;
};

struct TcpLink {
  static constexpr const char* kName = "Tcp";
  using Transport = wface::IAWTransport;
  using Connector = wface::IAWConnector;
  using Acceptor = wface::IAWAcceptor;
  using Sink = PlainSink<wface::IAWTransportSink, Transport, wface::CAWTransportParameter>;
  struct ConnectSink : wface::IAWAcceptorConnectorSink {
    virtual void Told(long reason, Transport* transport) = 0;
    void OnConnectIndication(long reason, Transport* transport,
                             wface::IAWAcceptorConnectorId*) override {
      Told(reason, transport);
    }
  };

  static AWResult Make(CAWAutoPtr<Connector>& out) {
    return wface::CAWConnectionManager::Instance()->CreateConnector(1, out);
  }
  static AWResult Make(CAWAutoPtr<Acceptor>& out) {
    return wface::CAWConnectionManager::Instance()->CreateAcceptor(1, out);
  }
  static AWResult Listen(Acceptor& acceptor, ConnectSink& sink) {
    return acceptor.StartListen(&sink, CAWInetAddr("127.0.0.1", 0), 0);
  }
  static AWResult Connect(Connector& connector, ConnectSink& sink, Acceptor& acceptor) {
    const keelbase::CAWTimeValue limit(5, 0);
    return connector.AsyncConnect(&sink, acceptor.GetLocalAddr(), &limit, nullptr);
  }
};

struct PtcpLink {
  static constexpr const char* kName = "PseudoTcp";
  using Transport = ptcp::IAWPseudoTCPTransport;
  using Connector = ptcp::IAWPseudoTCPConnector;
  using Acceptor = ptcp::IAWPseudoTCPAcceptor;
  using Sink =
      PlainSink<ptcp::IAWPseudoTCPTransportSink, Transport, ptcp::CAWPseudoTCPTransportParameter>;
  struct ConnectSink : ptcp::IAWPseudoTCPAcceptorConnectorSink {
    virtual void Told(long reason, Transport* transport) = 0;
    void OnConnectIndication(long reason, Transport* transport,
                             ptcp::IAWPseudoTCPAcceptorConnectorId*) override {
      Told(reason, transport);
    }
  };

  static AWResult Make(CAWAutoPtr<Connector>& out) {
    return ptcp::CAWPseudoTCPManager::Instance()->CreateConnector(out);
  }
  static AWResult Make(CAWAutoPtr<Acceptor>& out) {
    return ptcp::CAWPseudoTCPManager::Instance()->CreateAcceptor(out);
  }
  static AWResult Listen(Acceptor& acceptor, ConnectSink& sink) {
    return acceptor.StartListen(&sink, CAWInetAddr("127.0.0.1", 0), 0);
  }
  static AWResult Connect(Connector& connector, ConnectSink& sink, Acceptor& acceptor) {
    const keelbase::CAWTimeValue limit(5, 0);
    return connector.AsyncConnect(&sink, acceptor.GetLocalAddr(), &limit, nullptr);
  }
};

const KeyAndCertificate& OwnCertificate() {
  static const KeyAndCertificate& own = *[] {
    const TlsAuthority authority;
    auto* manager = sslutils::IAWSSLManager::Instance();
    EXPECT_EQ(manager->SetTrustedCertificates(authority.GetPem()), AW_OK);
    return new KeyAndCertificate(authority.Issue());
  }();
  return own;
}

struct TlsLink {
  static constexpr const char* kName = "Tls";
  using Transport = sslutils::IAWSSLTransport;
  using Connector = sslutils::IAWSSLConnector;
  using Acceptor = sslutils::IAWSSLAcceptor;
  struct Sink : sslutils::IAWSSLTransportSink {
    virtual void Received(std::size_t length) = 0;
    virtual void Ended(long reason) = 0;

    void OnSSLDataReceive(CAWMessageBlock& data, Transport*) override {
      Received(data.GetChainedLength());
    }
    void OnSSLDisconnect(long reason, Transport*) override { Ended(reason); }
    void OnSSLDataSend(Transport*) override {}
  };
  struct ConnectSink : sslutils::IAWSSLConnectionSink {
    virtual void Told(long reason, Transport* transport) = 0;
    void OnSSLConnected(long reason, Transport* transport) override { Told(reason, transport); }
  };

  static AWResult Make(CAWAutoPtr<Connector>& out) {
    return sslutils::IAWSSLManager::Instance()->CreateSSLConnector(out);
  }
  static AWResult Make(CAWAutoPtr<Acceptor>& out) {
    return sslutils::IAWSSLManager::Instance()->CreateSSLAcceptor(out);
  }
  static AWResult Listen(Acceptor& acceptor, ConnectSink& sink) {
    AWResult result = acceptor.SetPrivateKey(OwnCertificate().key);
    if (result == AW_OK) result = acceptor.SetCertificate(OwnCertificate().certificate);
    if (result != AW_OK) return result;
    return acceptor.StartListen(&sink, CAWInetAddr("127.0.0.1", 0), 0);
  }
  static AWResult Connect(Connector& connector, ConnectSink& sink, Acceptor& acceptor) {
    return connector.AsyncConnect(&sink, acceptor.GetLocalAddr(), 1, "", nullptr);
  }
};

struct PtlsLink : TlsLink {
  static constexpr const char* kName = "TlsOverPseudoTcp";
  using Connector = sslptcp::IAWSSLPTCPConnector;

  static AWResult Make(CAWAutoPtr<Connector>& out) {
    return sslptcp::IAWSSLPTCPManager::Instance()->CreateConnector(out);
  }
  static AWResult Make(CAWAutoPtr<Acceptor>& out) {
    return sslptcp::IAWSSLPTCPManager::Instance()->CreateAcceptor(out);
  }
  static AWResult Connect(Connector& connector, ConnectSink& sink, Acceptor& acceptor) {
    return connector.AsyncConnect(&sink, acceptor.GetLocalAddr(), "", nullptr);
  }
};

// --- a connection ---

// One end; allocates nothing.
template <class Over>
class End final : public Over::ConnectSink, public Over::Sink {
 public:
  bool told = false;
  bool ended = false;
  long reason = 0;
  std::size_t received = 0;
  CAWAutoPtr<typename Over::Transport> transport;

  void Told(long why, typename Over::Transport* made) override {
    told = true;
    reason = why;
    EXPECT_EQ(why == 0, made != nullptr);
    if (made == nullptr) return;
    transport = made;
    EXPECT_EQ(transport->OpenWithSink(this), AW_OK);
  }
  void Received(std::size_t length) override {
    EXPECT_FALSE(ended);
    received += length;
  }
  void Ended(long why) override {
    EXPECT_FALSE(ended);
    ended = true;
    reason = why;
  }
  void Reset() {
    told = ended = false;
    reason = 0;
    received = 0;
  }
  bool IsOver() const { return ended || (told && !transport); }
  void Close() {
    if (transport) transport->Disconnect(0);
    transport = nullptr;
  }
};

template <class Over>
class TransportsAllocations : public ::testing::Test {
 protected:
  using Connector = typename Over::Connector;

  void SetUp() override {
    if constexpr (std::is_base_of_v<TlsLink, Over>) OwnCertificate();
    ASSERT_EQ(Over::Make(acceptor), AW_OK);
  }
  void TearDown() override {
    acceptor->StopListen();
    acceptor = nullptr;
    for (int second = 0; second < 20; ++second) clock.Advance(std::chrono::seconds(1));
  }

  // Connects and sends both ways; true when all arrived, else both sides have heard of an end.
  bool Exchange() {
    client.Reset();
    server.Reset();
    CAWAutoPtr<Connector> connector;
    if (Over::Make(connector) != AW_OK) return false;
    if (over.Connect(*connector, client, *acceptor) != AW_OK) return false;
    EXPECT_TRUE(Wait([this] { return client.IsOver() || (client.told && server.told); }));
    const bool sent = client.transport && Send(client) && Send(server);
    EXPECT_TRUE(!sent ||
                Wait([this] { return IsComplete() || client.IsOver() || server.IsOver(); }));
    const bool complete = sent && IsComplete();
    client.Close();
    server.Close();
    connector = nullptr;
    RunReady();
    return complete;
  }
  // Time passes while there is nothing to do, a minute at most: a peer that fell silent is given
  // up.
  template <class Condition>
  bool Wait(Condition condition) {
    for (int waited = 0; !condition(); ++waited) {
      if (waited == 6000) return false;
      RunReady();
      if (!condition()) clock.Advance(std::chrono::milliseconds(10));
    }
    return true;
  }
  bool Send(End<Over>& end) {
    CAWMessageBlock block(bytes.data(), bytes.size(), CAWMessageBlock::borrow);
    return end.transport && end.transport->SendData(block, nullptr) == AW_OK;
  }
  bool IsComplete() const {
    return client.received == bytes.size() && server.received == bytes.size();
  }

  Over over;
  const std::string bytes = std::string(10000, 'x');
  CAWAutoPtr<typename Over::Acceptor> acceptor;
  End<Over> client;
  End<Over> server;
  HandClock clock;
  TraceLines trace;
};

struct LinkNames {
  template <class Over>
  static std::string GetName(int) {
    return Over::kName;
  }
};

using Transports = ::testing::Types<IpcLink, ShmLink, TcpLink, TlsLink, PtcpLink, PtlsLink>;
TYPED_TEST_SUITE(TransportsAllocations, Transports, LinkNames);

TYPED_TEST(TransportsAllocations, AnExchangeIsCompleteOrBothSidesHearThatItIsNot) {
  ASSERT_EQ(this->over.Listen(*this->acceptor, this->server), AW_OK);
  ASSERT_TRUE(this->Exchange());
  for (EachAllocation each; each.Next();) {
    bool complete = false;
    each.Try([&] { complete = this->Exchange(); });
    EXPECT_TRUE(complete || each.HasFailed());
    ASSERT_FALSE(this->HasFailure()) << "allocation " << each.GetNumber();
  }
  EXPECT_TRUE(this->Exchange());
}

TYPED_TEST(TransportsAllocations, AListenerThatFindsNoMemorySaysSoAndCanBeStartedAgain) {
  for (EachAllocation each; each.Next();) {
    AWResult result = AW_OK;
    each.Try([&] { result = this->over.Listen(*this->acceptor, this->server); });
    // What it can do without is no reason to fail.
    EXPECT_TRUE(result == AW_OK || each.HasFailed());
    if (result == AW_OK) this->acceptor->StopListen();
  }
  ASSERT_EQ(this->over.Listen(*this->acceptor, this->server), AW_OK);
  EXPECT_TRUE(this->Exchange());
}

}  // namespace
}  // namespace zarn::test
