// FakePtcp.h - the scripted stand-in for a pseudo-TCP transport, see FakeTransport.h.
#pragma once

#include <vector>

#include "FakeTransport.h"
#include "keelbase/CAWInetAddr.h"
#include "ptcp/CAWPseudoTCPTransport.h"

namespace zarn::test {

struct Ptcp {
  using Address = keelbase::CAWInetAddr;
  using Transport = ptcp::IAWPseudoTCPTransport;
  using TransportSink = ptcp::IAWPseudoTCPTransportSink;
  using Parameter = ptcp::CAWPseudoTCPTransportParameter;
};

class FakePtcpTransport final : public ScriptedTransport<Ptcp> {
 public:
  explicit FakePtcpTransport(CallLog* log = nullptr) : ScriptedTransport(log) {}

  std::vector<int> optionsRead;  // the codes, in order

  keelbase::AWResult GetOption(int code, void* value) override {
    optionsRead.push_back(code);
    if (code != keelbase::AW_OPT_PEER_ADDRESS && code != keelbase::AW_OPT_LOCAL_ADDRESS)
      return keelbase::AW_ERROR_FAILURE;
    *static_cast<keelbase::CAWInetAddr*>(value) =
        code == keelbase::AW_OPT_PEER_ADDRESS ? peer : local;
    return keelbase::AW_OK;
  }
};

}  // namespace zarn::test
