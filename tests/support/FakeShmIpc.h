// FakeShmIpc.h - the scripted stand-ins for shared-memory IPC, see FakeTransport.h.
#pragma once

#include <vector>

#include "FakeTransport.h"
#include "fshmipc/CAWShmIPCAddr.h"
#include "fshmipc/CAWShmIPCManager.h"
#include "fshmipc/CAWShmIPCTransport.h"
#include "keelbase/CAWString.h"

namespace zarn::test {

struct ShmIpc {
  using Address = fshmipc::CAWShmIPCAddr;
  using Transport = fshmipc::IAWShmIPCTransport;
  using TransportSink = fshmipc::IAWShmIPCTransportSink;
  using Parameter = fshmipc::CAWShmIPCTransportParameter;
  using Connector = fshmipc::IAWShmIPCConnector;
  using Acceptor = fshmipc::IAWShmIPCAcceptor;
  using ConnectSink = fshmipc::IAWShmIPCAcceptorConnectorSink;
  using Manager = fshmipc::CAWShmIPCManager;

  static void Indicate(ConnectSink& sink, long reason, Transport* transport,
                       fshmipc::IAWShmIPCAcceptorConnectorId* id) {
    sink.OnShmIPCConnectIndication(reason, transport, id);
  }
};

class FakeShmTransport final : public ScriptedTransport<ShmIpc> {
 public:
  explicit FakeShmTransport(CallLog* log = nullptr) : ScriptedTransport(log) {}

  fshmipc::CAWShmIPCAddr GetPeerAddr() const override { return peer; }
  fshmipc::CAWShmIPCAddr GetLocalAddr() const override { return local; }
  keelbase::AWResult GetOption(int, void*) override { return keelbase::AW_ERROR_FAILURE; }
};

using FakeShmConnector = ScriptedConnector<ShmIpc>;
using FakeShmAcceptor = ScriptedAcceptor<ShmIpc>;

class FakeShmManager final : public ScriptedManager<ShmIpc> {
 public:
  explicit FakeShmManager(CallLog* log = nullptr) : ScriptedManager(log) {}

  std::vector<keelbase::CAWString> systemPaths;  // every one that was set
  bool createsNothing = false;  // answers 0 all the same, and leaves `out` as it is

  void SetSystemPath(const keelbase::CAWString& directory) override {
    systemPaths.push_back(directory);
  }
  keelbase::AWResult CreateConnector(
      keelbase::CAWAutoPtr<fshmipc::IAWShmIPCConnector>& out) override {
    if (createsNothing) return keelbase::AW_OK;
    return CreateOneConnector(out);
  }
  keelbase::AWResult CreateAcceptor(
      keelbase::CAWAutoPtr<fshmipc::IAWShmIPCAcceptor>& out) override {
    if (createsNothing) return keelbase::AW_OK;
    return Create(out, acceptors);
  }
};

}  // namespace zarn::test
