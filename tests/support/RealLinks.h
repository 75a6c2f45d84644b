// RealLinks.h - the real transports in one shape, for typed tests that hold for all of them.
#pragma once

#include <gtest/gtest.h>

#include <cstddef>
#include <string>

#include "RealShmIpc.h"
#include "RealTls.h"
#include "TlsAuthority.h"
#include "ptcp/CAWPseudoTCPManager.h"
#include "wface/CAWConnectionManager.h"

namespace zarn::test::links {

using keelbase::CAWInetAddr;

template <class SinkInterface, class TransportInterface, class Parameter>
struct PlainSink : SinkInterface {
  virtual void Received(const CAWMessageBlock& data) = 0;
  virtual void OnRoom() = 0;
  virtual void Ended(long reason) = 0;

  void OnReceive(CAWMessageBlock& data, TransportInterface*, Parameter*) override {
    Received(data);
  }
  void OnSend(TransportInterface*, Parameter*) override { OnRoom(); }
  void OnDisconnect(long reason, TransportInterface*) override { Ended(reason); }
};

struct IpcLink {
  static constexpr const char* kName = "LocalIpc";
  static constexpr bool kTellsACut = false;  // an end in order means that all has arrived
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
  static constexpr bool kTellsACut = false;
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
  static constexpr bool kTellsACut = false;
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
  static constexpr bool kTellsACut = true;
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

inline const KeyAndCertificate& OwnCertificate() {
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
  static constexpr bool kTellsACut = true;
  using Transport = sslutils::IAWSSLTransport;
  using Connector = sslutils::IAWSSLConnector;
  using Acceptor = sslutils::IAWSSLAcceptor;
  struct Sink : sslutils::IAWSSLTransportSink {
    virtual void Received(const CAWMessageBlock& data) = 0;
    virtual void OnRoom() = 0;
    virtual void Ended(long reason) = 0;

    void OnSSLDataReceive(CAWMessageBlock& data, Transport*) override { Received(data); }
    void OnSSLDisconnect(long reason, Transport*) override { Ended(reason); }
    void OnSSLDataSend(Transport*) override { OnRoom(); }
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

struct LinkNames {
  template <class Over>
  static std::string GetName(int) {
    return Over::kName;
  }
};

using Transports = ::testing::Types<IpcLink, ShmLink, TcpLink, TlsLink, PtcpLink, PtlsLink>;

}  // namespace zarn::test::links
