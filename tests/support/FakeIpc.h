// FakeIpc.h - the scripted stand-ins for local IPC, see FakeTransport.h.
#pragma once

#include <vector>

#include "FakeTransport.h"
#include "fipc/CAWIPCManager.h"
#include "fipc/CAWIPCTransport.h"
#include "keelbase/CAWIPCAddr.h"

namespace zarn::test {

struct LocalIpc {
  using Address = keelbase::CAWIPCAddr;
  using Transport = fipc::IAWIPCTransport;
  using TransportSink = fipc::IAWIPCTransportSink;
  using Parameter = fipc::CAWIPCTransportParameter;
  using Connector = fipc::IAWIPCConnector;
  using Acceptor = fipc::IAWIPCAcceptor;
  using ConnectSink = fipc::IAWIPCAcceptorConnectorSink;
  using Manager = fipc::CAWIPCManager;

  static void Indicate(ConnectSink& sink, long reason, Transport* transport,
                       fipc::IAWIPCAcceptorConnectorId* id) {
    sink.OnIPCConnectIndication(reason, transport, id);
  }
};

class FakeTransport final : public ScriptedTransport<LocalIpc> {
 public:
  explicit FakeTransport(CallLog* log = nullptr) : ScriptedTransport(log) {}

  keelbase::AWResult GetOption(int code, void* value) override {
    if (code != keelbase::AW_OPT_PEER_ADDRESS && code != keelbase::AW_OPT_LOCAL_ADDRESS)
      return keelbase::AW_ERROR_FAILURE;
    *static_cast<keelbase::CAWIPCAddr*>(value) =
        code == keelbase::AW_OPT_PEER_ADDRESS ? peer : local;
    return keelbase::AW_OK;
  }
};

using FakeConnector = ScriptedConnector<LocalIpc>;
using FakeAcceptor = ScriptedAcceptor<LocalIpc>;

class FakeManager final : public ScriptedManager<LocalIpc> {
 public:
  explicit FakeManager(CallLog* log = nullptr) : ScriptedManager(log) {}

  std::vector<int> kinds;

  keelbase::AWResult CreateConnector(int kind,
                                     keelbase::CAWAutoPtr<fipc::IAWIPCConnector>& out) override {
    kinds.push_back(kind);
    return CreateOneConnector(out);
  }
  keelbase::AWResult CreateAcceptor(int kind,
                                    keelbase::CAWAutoPtr<fipc::IAWIPCAcceptor>& out) override {
    kinds.push_back(kind);
    return Create(out, acceptors);
  }
};

}  // namespace zarn::test
