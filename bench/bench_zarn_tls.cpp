// bench_zarn_tls.cpp - the TLS session of zarnutils with the frame of the channels.
#include "common/TlsChannels.h"
#include "zarn/utils/CZARNSSLTCPSessionBase.h"

namespace {

keelbase::AWResult MakeAcceptor(keelbase::CAWAutoPtr<sslutils::IAWSSLAcceptor>& out) {
  return sslutils::IAWSSLManager::Instance()->CreateSSLAcceptor(out);
}

}  // namespace

int main(int argc, char** argv) {
  using Over = bench::OverTls<zarn::utils::CZARNSSLTCPSessionBase, MakeAcceptor>;
  return bench::ChannelBench<Over>::Run(argc, argv);
}
