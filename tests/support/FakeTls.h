// FakeTls.h - the scripted stand-ins for TLS, see FakeTransport.h.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "FakeTransport.h"
#include "keelbase/CAWInetAddr.h"
#include "sslptcp/CAWSSLPTCPManager.h"
#include "sslutils/CAWSSLManager.h"
#include "sslutils/CAWSSLTransport.h"
#include "wface/CAWTransport.h"

namespace zarn::test {

struct Tls {
  using Address = keelbase::CAWInetAddr;
  using Transport = sslutils::IAWSSLTransport;
  using TransportSink = sslutils::IAWSSLTransportSink;
  using Parameter = sslutils::CAWSSLTransportParameter;
  using Connector = sslutils::IAWSSLConnector;
  using Acceptor = sslutils::IAWSSLAcceptor;
  using ConnectSink = sslutils::IAWSSLConnectionSink;
  using Manager = sslutils::IAWSSLManager;
};

class FakeTlsTransport final : public ScriptedTransport<Tls> {
 public:
  explicit FakeTlsTransport(CallLog* log = nullptr) : ScriptedTransport(log) {}

  std::vector<int> optionsRead;  // the codes, in order
  std::vector<std::uint32_t> silenceLimits;
  std::vector<Tls::Parameter> parametersSeen;  // of the sends that had one, as they were

  void Receive(keelbase::CAWMessageBlock& block) {
    const Self self(this);
    if (GetSink() != nullptr) GetSink()->OnSSLDataReceive(block, this);
  }
  void Receive(const std::string& bytes) {
    keelbase::CAWMessageBlock block(bytes.size());
    block.Write(bytes.data(), bytes.size());
    Receive(block);
  }
  void ReadyToSend() {
    const Self self(this);
    if (GetSink() != nullptr) GetSink()->OnSSLDataSend(this);
  }
  void End(long reason) {
    const Self self(this);
    if (GetSink() != nullptr && !std::exchange(ended_, true))
      GetSink()->OnSSLDisconnect(reason, this);
  }

  keelbase::AWResult SendData(keelbase::CAWMessageBlock& data,
                              sslutils::CAWSSLTransportParameter* parameter) override {
    if (parameter != nullptr) parametersSeen.push_back(*parameter);
    return ScriptedTransport::SendData(data, parameter);
  }
  keelbase::AWResult GetOption(int code, void* value) override {
    optionsRead.push_back(code);
    if (code != keelbase::AW_OPT_PEER_ADDRESS && code != keelbase::AW_OPT_LOCAL_ADDRESS)
      return keelbase::AW_ERROR_FAILURE;
    *static_cast<keelbase::CAWInetAddr*>(value) =
        code == keelbase::AW_OPT_PEER_ADDRESS ? peer : local;
    return keelbase::AW_OK;
  }
  keelbase::AWResult SetOption(int code, void* value) override {
    if (code != wface::AW_OPT_SILENCE_LIMIT) return ScriptedTransport::SetOption(code, value);
    silenceLimits.push_back(*static_cast<std::uint32_t*>(value));
    return keelbase::AW_OK;
  }

 private:
  bool ended_ = false;
};

// All of a connector but the parameters of its AsyncConnect.
template <class Interface>
class TlsConnectorScript : public FakeCounted<Interface> {
 public:
  using Address = keelbase::CAWInetAddr;

  explicit TlsConnectorScript(CallLog* log) : FakeCounted<Interface>(log) {}

  keelbase::AWResult connectResult = keelbase::AW_OK;

  int connects = 0;
  int cancels = 0;
  std::vector<long> cancelReasons;
  Address peer;
  Address local;
  bool hadLocal = false;
  int verify = -1;
  bool hadServerName = true;

  bool IsPending() const { return sink_ != nullptr; }

  void Complete(long reason, sslutils::IAWSSLTransport* transport) {
    const keelbase::CAWAutoPtr<TlsConnectorScript> self(this);
    if (auto* sink = std::exchange(sink_, nullptr)) sink->OnSSLConnected(reason, transport);
  }

  keelbase::AWResult SetPrivateKey(const keelbase::CAWString& text) override {
    this->Note("connector.SetPrivateKey(" + text + ")");
    return keelbase::AW_OK;
  }
  keelbase::AWResult SetCertificate(const keelbase::CAWString& text) override {
    this->Note("connector.SetCertificate(" + text + ")");
    return keelbase::AW_OK;
  }
  keelbase::AWResult SetVerifyMode(int) override { return keelbase::AW_ERROR_FAILURE; }
  keelbase::AWResult Cancel(long reason) override {
    this->Note("connector.CancelConnect");
    ++cancels;
    cancelReasons.push_back(reason);
    sink_ = nullptr;
    return keelbase::AW_OK;
  }

 protected:
  keelbase::AWResult Start(sslutils::IAWSSLConnectionSink* sink, const Address& to,
                           const char* serverName, const Address* from) {
    this->Note("connector.AsyncConnect");
    ++connects;
    peer = to;
    hadLocal = from != nullptr;
    local = hadLocal ? *from : Address();
    hadServerName = serverName != nullptr;
    if (connectResult == keelbase::AW_OK) sink_ = sink;
    return connectResult;
  }

 private:
  sslutils::IAWSSLConnectionSink* sink_ = nullptr;
};

class FakeTlsConnector final : public TlsConnectorScript<sslutils::IAWSSLConnector> {
 public:
  using TlsConnectorScript::TlsConnectorScript;

  keelbase::AWResult AsyncConnect(sslutils::IAWSSLConnectionSink* sink, const Address& to,
                                  int check, const char* serverName, const Address* from) override {
    verify = check;
    return Start(sink, to, serverName, from);
  }
};

class FakeSslPtcpConnector final : public TlsConnectorScript<sslptcp::IAWSSLPTCPConnector> {
 public:
  using TlsConnectorScript::TlsConnectorScript;

  keelbase::AWResult AsyncConnect(sslutils::IAWSSLConnectionSink* sink, const Address& to,
                                  const char* serverName, const Address* from) override {
    return Start(sink, to, serverName, from);
  }
};

// Stands in for the process's manager as long as it lives.
template <class Manager, class FakeConnector>
class TlsManagerScript : public Manager {
 public:
  using Connector = FakeConnector;

  explicit TlsManagerScript(CallLog* log) : log_(log) { Manager::TEST_SetInstance(this); }
  ~TlsManagerScript() override { Manager::TEST_SetInstance(nullptr); }
  TlsManagerScript(const TlsManagerScript&) = delete;
  TlsManagerScript& operator=(const TlsManagerScript&) = delete;

  keelbase::AWResult createResult = keelbase::AW_OK;   // any other: nothing is made
  keelbase::AWResult connectResult = keelbase::AW_OK;  // of the connectors made from now on
  bool makesNothing = false;                           // and says that all is well

  int requests = 0;
  std::vector<keelbase::CAWAutoPtr<Connector>> connectors;
  bool outWasNull = true;  // on every call

  Connector& Last() { return *connectors.back(); }

 protected:
  template <class Interface>
  keelbase::AWResult Create(keelbase::CAWAutoPtr<Interface>& out) {
    ++requests;
    outWasNull = outWasNull && !out;
    out = nullptr;
    if (createResult != keelbase::AW_OK || makesNothing) return createResult;
    connectors.emplace_back(new Connector(log_));
    Last().connectResult = connectResult;
    out = connectors.back().Get();
    return keelbase::AW_OK;
  }

 private:
  CallLog* log_;
};

class FakeTlsManager final : public TlsManagerScript<sslutils::IAWSSLManager, FakeTlsConnector> {
 public:
  explicit FakeTlsManager(CallLog* log = nullptr) : TlsManagerScript(log) {}

  keelbase::AWResult CreateSSLConnector(
      keelbase::CAWAutoPtr<sslutils::IAWSSLConnector>& out) override {
    return Create(out);
  }
  keelbase::AWResult CreateSSLAcceptor(keelbase::CAWAutoPtr<sslutils::IAWSSLAcceptor>&) override {
    return keelbase::AW_ERROR_FAILURE;
  }
  keelbase::AWResult SetTrustedCertificates(const keelbase::CAWString&) override {
    return keelbase::AW_ERROR_FAILURE;
  }
};

class FakeSslPtcpManager final
    : public TlsManagerScript<sslptcp::IAWSSLPTCPManager, FakeSslPtcpConnector> {
 public:
  explicit FakeSslPtcpManager(CallLog* log = nullptr) : TlsManagerScript(log) {}

  keelbase::AWResult CreateConnector(
      keelbase::CAWAutoPtr<sslptcp::IAWSSLPTCPConnector>& out) override {
    return Create(out);
  }
  keelbase::AWResult CreateAcceptor(keelbase::CAWAutoPtr<sslutils::IAWSSLAcceptor>&) override {
    return keelbase::AW_ERROR_FAILURE;
  }
};

}  // namespace zarn::test
