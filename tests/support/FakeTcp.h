// FakeTcp.h - the scripted stand-ins for TCP, see FakeTransport.h.
#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "FakeTransport.h"
#include "keelbase/CAWInetAddr.h"
#include "keelbase/CAWTimeValue.h"
#include "wface/CAWConnectionManager.h"
#include "wface/CAWTransport.h"

namespace zarn::test {

struct Tcp {
  using Address = keelbase::CAWInetAddr;
  using Transport = wface::IAWTransport;
  using TransportSink = wface::IAWTransportSink;
  using Parameter = wface::CAWTransportParameter;
  using Connector = wface::IAWConnector;
  using Acceptor = wface::IAWAcceptor;
  using ConnectSink = wface::IAWAcceptorConnectorSink;
  using Manager = wface::CAWConnectionManager;

  static void Indicate(ConnectSink& sink, long reason, Transport* transport,
                       wface::IAWAcceptorConnectorId* id) {
    sink.OnConnectIndication(reason, transport, id);
  }
};

template <>
class ScriptedConnector<Tcp> final : public ConnectorScript<Tcp> {
 public:
  explicit ScriptedConnector(CallLog* log = nullptr) : ConnectorScript(log) {}

  std::optional<keelbase::CAWTimeValue> timeout;

  keelbase::AWResult AsyncConnect(wface::IAWAcceptorConnectorSink* sink,
                                  const keelbase::CAWInetAddr& to,
                                  const keelbase::CAWTimeValue* within,
                                  const keelbase::CAWInetAddr* from) override {
    timeout.reset();
    if (within != nullptr) timeout = *within;
    return Start(sink, to, from);
  }
};

template <>
class ScriptedAcceptor<Tcp> final : public FakeCounted<wface::IAWAcceptor> {
 public:
  explicit ScriptedAcceptor(CallLog* log = nullptr) : FakeCounted(log) {}

  keelbase::AWResult StartListen(wface::IAWAcceptorConnectorSink*, const keelbase::CAWInetAddr&,
                                 int) override {
    return keelbase::AW_OK;
  }
  keelbase::AWResult StopListen() override { return keelbase::AW_OK; }
  keelbase::CAWInetAddr GetLocalAddr() const override { return {}; }
};

class FakeTcpTransport final : public ScriptedTransport<Tcp> {
 public:
  explicit FakeTcpTransport(CallLog* log = nullptr) : ScriptedTransport(log) {}

  std::vector<int> optionsRead;  // the codes, in order
  std::vector<std::uint32_t> silenceLimits;

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
};

class FakeTcpManager final : public ScriptedManager<Tcp> {
 public:
  explicit FakeTcpManager(CallLog* log = nullptr) : ScriptedManager(log) {}

  std::vector<int> kinds;

  keelbase::AWResult CreateConnector(int kind,
                                     keelbase::CAWAutoPtr<wface::IAWConnector>& out) override {
    kinds.push_back(kind);
    return CreateOneConnector(out);
  }
  keelbase::AWResult CreateAcceptor(int kind,
                                    keelbase::CAWAutoPtr<wface::IAWAcceptor>& out) override {
    kinds.push_back(kind);
    return Create(out, acceptors);
  }
};

}  // namespace zarn::test
