// bench_zarn_ptls.cpp - the session for TLS over pseudo-TCP with the frame of the channels.
#include "common/TlsChannels.h"
#include "sslptcp/CAWSSLPTCPManager.h"
#include "zarn/utils/CSSLPTCPSessionBase.h"

namespace {

// Sends as the other sessions do.
class Session : public zarn::utils::CSSLPTCPSessionBase {
 public:
  keelbase::AWResult SendMsg(keelbase::CAWMessageBlock& data) { return SendMessage(data); }
};

keelbase::AWResult MakeAcceptor(keelbase::CAWAutoPtr<sslutils::IAWSSLAcceptor>& out) {
  return sslptcp::IAWSSLPTCPManager::Instance()->CreateAcceptor(out);
}

}  // namespace

int main(int argc, char** argv) {
  using Over = bench::OverTls<Session, MakeAcceptor>;
  return bench::ChannelBench<Over>::Run(argc, argv);
}
