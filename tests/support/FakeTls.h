// FakeTls.h - the scripted stand-ins for TLS, see FakeTransport.h.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "FakeTransport.h"
#include "keelbase/CAWInetAddr.h"
#include "sslutils/CAWSSLManager.h"
#include "sslutils/CAWSSLTransport.h"

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

  std::vector<int> optionsRead;                // the codes, in order
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

 private:
  bool ended_ = false;
};

class FakeTlsConnector final : public FakeCounted<sslutils::IAWSSLConnector> {
 public:
  using Address = keelbase::CAWInetAddr;

  explicit FakeTlsConnector(CallLog* log = nullptr) : FakeCounted(log) {}

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
    const keelbase::CAWAutoPtr<FakeTlsConnector> self(this);
    if (auto* sink = std::exchange(sink_, nullptr)) sink->OnSSLConnected(reason, transport);
  }

  keelbase::AWResult SetPrivateKey(const keelbase::CAWString& text) override {
    Note("connector.SetPrivateKey(" + text + ")");
    return keelbase::AW_OK;
  }
  keelbase::AWResult SetCertificate(const keelbase::CAWString& text) override {
    Note("connector.SetCertificate(" + text + ")");
    return keelbase::AW_OK;
  }
  keelbase::AWResult SetVerifyMode(int) override { return keelbase::AW_ERROR_FAILURE; }
  keelbase::AWResult AsyncConnect(sslutils::IAWSSLConnectionSink* sink, const Address& to,
                                  int check, const char* serverName, const Address* from) override {
    Note("connector.AsyncConnect");
    ++connects;
    peer = to;
    hadLocal = from != nullptr;
    local = hadLocal ? *from : Address();
    verify = check;
    hadServerName = serverName != nullptr;
    if (connectResult == keelbase::AW_OK) sink_ = sink;
    return connectResult;
  }
  keelbase::AWResult Cancel(long reason) override {
    Note("connector.CancelConnect");
    ++cancels;
    cancelReasons.push_back(reason);
    sink_ = nullptr;
    return keelbase::AW_OK;
  }

 private:
  sslutils::IAWSSLConnectionSink* sink_ = nullptr;
};

// Stands in for the process's manager as long as it lives.
class FakeTlsManager final : public sslutils::IAWSSLManager {
 public:
  using Connector = FakeTlsConnector;

  explicit FakeTlsManager(CallLog* log = nullptr) : log_(log) { TEST_SetInstance(this); }
  ~FakeTlsManager() override { TEST_SetInstance(nullptr); }
  FakeTlsManager(const FakeTlsManager&) = delete;
  FakeTlsManager& operator=(const FakeTlsManager&) = delete;

  keelbase::AWResult createResult = keelbase::AW_OK;   // any other: nothing is made
  keelbase::AWResult connectResult = keelbase::AW_OK;  // of the connectors made from now on
  bool makesNothing = false;                           // and says that all is well

  int requests = 0;
  std::vector<keelbase::CAWAutoPtr<FakeTlsConnector>> connectors;
  bool outWasNull = true;  // on every call

  FakeTlsConnector& Last() { return *connectors.back(); }

  keelbase::AWResult CreateSSLConnector(
      keelbase::CAWAutoPtr<sslutils::IAWSSLConnector>& out) override {
    ++requests;
    outWasNull = outWasNull && !out;
    out = nullptr;
    if (createResult != keelbase::AW_OK || makesNothing) return createResult;
    connectors.emplace_back(new FakeTlsConnector(log_));
    Last().connectResult = connectResult;
    out = connectors.back().Get();
    return keelbase::AW_OK;
  }
  keelbase::AWResult CreateSSLAcceptor(keelbase::CAWAutoPtr<sslutils::IAWSSLAcceptor>&) override {
    return keelbase::AW_ERROR_FAILURE;
  }
  keelbase::AWResult SetTrustedCertificates(const keelbase::CAWString&) override {
    return keelbase::AW_ERROR_FAILURE;
  }

 private:
  CallLog* log_;
};

}  // namespace zarn::test
