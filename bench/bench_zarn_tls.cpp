// bench_zarn_tls.cpp - the TLS session of zarnutils with the frame of the channels.
#include "FrameCodec.h"
#include "common/ChannelBench.h"
#include "common/TlsSide.h"
#include "sslutils/CAWSSLManager.h"
#include "zarn/utils/CZARNSSLTCPSessionBase.h"

namespace {

using keelbase::CAWInetAddr;
using keelbase::CAWMessageBlock;

bench::TlsFiles Files() { return bench::TlsFiles(std::getenv("ZARN_ROOT")); }

struct OverTls {
  using Transport = sslutils::IAWSSLTransport;
  using TransportParameter = sslutils::CAWSSLTransportParameter;

  class Channel : public zarn::utils::CZARNSSLTCPSessionBase {
   public:
    keelbase::AWResult SendZARNMessage(std::uint16_t type, std::uint32_t tag, const char* data,
                                       std::size_t size) {
      const auto header = zarn::utils::EncodeFrameHeader(type, tag, size);
      CAWMessageBlock frame(header.data(), header.size(), CAWMessageBlock::borrow);
      CAWMessageBlock payload(data, size, CAWMessageBlock::borrow);
      const CAWMessageBlock::LinkForCall link(frame, payload);
      return SendMsg(frame);
    }
    std::size_t HandleMessage(const char* data, std::size_t len) override {
      const zarn::utils::Frame frame = zarn::utils::DecodeFrame(data, len);
      if (frame.result != zarn::utils::FrameResult::kFrame) return 0;
      OnZARNMessage(frame.type, frame.tag, frame.payload, frame.datasize);
      return frame.pdulen;
    }
    virtual void OnZARNMessage(std::uint16_t type, std::uint32_t tag, const char* data,
                               std::size_t size) = 0;
    int OnConnected(long) override { return 0; }
    void OnPeerDisconnect(long reason) override {
      if (reason != 0) bench::Fail("connection: " + sslutils::DescribeSSLResult(reason));
    }
    void OnRcvBufferOverFlow(std::uint32_t) override {}
  };

  class ClientChannel : public Channel {
   public:
    // The endpoint is that of the run.
    keelbase::AWResult Init(std::uint16_t, std::uint16_t, std::uint16_t, std::uint16_t) {
      static const CAWInetAddr server = [] {
        sslutils::IAWSSLManager::Instance()->SetTrustedCertificates(Files().authority);
        return CAWInetAddr("127.0.0.1", Files().ReadPort());
      }();
      return Connect(server, nullptr);
    }
    virtual void OnSend(Transport* transport, TransportParameter*) {
      Channel::OnSSLDataSend(transport);
    }
    void OnSSLDataSend(Transport* transport) override { OnSend(transport, nullptr); }
  };

  class ServerChannel : public Channel {
   public:
    explicit ServerChannel(Transport* transport) {
      keelbase::CAWAutoPtr<Transport> held(transport);
      bench::Check(SetTransportHandle(held), "transport");
    }
  };

  class Listener final : public sslutils::IAWSSLConnectionSink {
   public:
    explicit Listener(std::function<void(Transport*)> accepted) : accepted_(std::move(accepted)) {
      const bench::TlsFiles files = Files();
      files.Make();
      bench::Check(sslutils::IAWSSLManager::Instance()->CreateSSLAcceptor(acceptor_), "acceptor");
      bench::Check(acceptor_->SetPrivateKey(files.key), "key");
      bench::Check(acceptor_->SetCertificate(files.certificate), "certificate");
      bench::Check(acceptor_->StartListen(this, CAWInetAddr("127.0.0.1", 0), 128), "listen");
      files.WritePort(acceptor_->GetLocalAddr().GetPort());
    }
    void OnSSLConnected(long reason, Transport* transport) override {
      bench::Check(static_cast<keelbase::AWResult>(reason), "accept");
      accepted_(transport);
    }

   private:
    std::function<void(Transport*)> accepted_;
    keelbase::CAWAutoPtr<sslutils::IAWSSLAcceptor> acceptor_;
  };
};

}  // namespace

int main(int argc, char** argv) { return bench::ChannelBench<OverTls>::Run(argc, argv); }
