// Dialer.cpp - see Dialer.h.
#include "Dialer.h"

#include <arpa/inet.h>

#include <cerrno>
#include <new>
#include <utility>

namespace shttp {

using keelbase::AW_OK;
using keelbase::AWResult;
using keelbase::CAWInetAddr;
using keelbase::CAWMessageBlock;

namespace {

constexpr int kVerify = 1;

// What streams over TCP and TLS have in common; how their events are called differs.
template <class Transport, class TransportSink>
class TransportStream : public ByteStream, protected TransportSink {
 public:
  explicit TransportStream(Transport* transport) : transport_(transport) {}
  ~TransportStream() override { transport_->Disconnect(0); }

  AWResult Open(Sink* sink) override {
    sink_ = sink;
    return transport_->OpenWithSink(this);
  }
  AWResult Send(CAWMessageBlock& chain) override { return transport_->SendData(chain, nullptr); }
  AWResult GetOption(int code, void* value) override { return transport_->GetOption(code, value); }
  AWResult SetOption(int code, void* value) override { return transport_->SetOption(code, value); }

 protected:
  Sink* sink_ = nullptr;

 private:
  const keelbase::CAWAutoPtr<Transport> transport_;
};

class TcpStream final : public TransportStream<wface::IAWTransport, wface::IAWTransportSink> {
 public:
  using TransportStream::TransportStream;

 private:
  void OnReceive(CAWMessageBlock& data, wface::IAWTransport*,
                 wface::CAWTransportParameter*) override {
    sink_->OnBytes(data);
  }
  void OnSend(wface::IAWTransport*, wface::CAWTransportParameter*) override { sink_->OnRoom(); }
  void OnDisconnect(long reason, wface::IAWTransport*) override { sink_->OnEnd(reason); }
};

class TlsStream final
    : public TransportStream<sslutils::IAWSSLTransport, sslutils::IAWSSLTransportSink> {
 public:
  using TransportStream::TransportStream;

 private:
  void OnSSLDataReceive(CAWMessageBlock& data, sslutils::IAWSSLTransport*) override {
    sink_->OnBytes(data);
  }
  void OnSSLDataSend(sslutils::IAWSSLTransport*) override { sink_->OnRoom(); }
  void OnSSLDisconnect(long reason, sslutils::IAWSSLTransport*) override { sink_->OnEnd(reason); }
};

// Null for no transport and without memory.
template <class Stream, class Transport>
std::unique_ptr<ByteStream> MakeStream(Transport* transport) try {
  return transport == nullptr ? nullptr : std::make_unique<Stream>(transport);
} catch (const std::bad_alloc&) {
  return nullptr;
}

bool IsAddress(const std::string& host) {
  in_addr address;
  return ::inet_pton(AF_INET, host.c_str(), &address) == 1;
}

// Certificates name hosts without the dot that a url may end one with.
std::string WithoutLastDot(const std::string& host) {
  return host.back() == '.' ? host.substr(0, host.size() - 1) : host;
}

// EADDRNOTAVAIL stands for a name that is not found here; the system means a lack of free ports.
long ReasonOf(long reason) { return reason == EADDRNOTAVAIL ? EADDRINUSE : reason; }

int ErrorOf(AWResult result) {
  return result == AW_OK ? 0 : ENOMEM;  // our calls are good ones, so nothing else is left
}

}  // namespace

int Dialer::Start(const Url& url, Done done) {
  tls_ = url.tls;
  serverName_ = WithoutLastDot(url.host);
  done_ = std::move(done);
  if (IsAddress(url.host)) return Connect(CAWInetAddr(url.host.c_str(), url.port));
  return lookup_.Start(loop_, url.host, url.port, [this](int error, const CAWInetAddr& address) {
    if (error == 0) error = Connect(address);
    if (error != 0) Finish(error, nullptr);
  });
}

void Dialer::Stop() {
  done_ = nullptr;
  lookup_.Cancel();
  tcp_ = nullptr;
  ssl_ = nullptr;
}

int Dialer::Connect(const CAWInetAddr& address) {
  if (tls_) return ConnectTls(address);
  AWResult result =
      wface::CAWConnectionManager::Instance()->CreateConnector(wface::AW_KIND_TCP, tcp_);
  if (result == AW_OK) result = tcp_->AsyncConnect(this, address, nullptr, nullptr);
  return ErrorOf(result);
}

int Dialer::ConnectTls(const CAWInetAddr& address) {
  AWResult result = sslutils::IAWSSLManager::Instance()->CreateSSLConnector(ssl_);
  if (result == AW_OK)
    result = ssl_->AsyncConnect(this, address, kVerify, serverName_.c_str(), nullptr);
  return ErrorOf(result);
}

void Dialer::OnConnectIndication(long reason, wface::IAWTransport* transport,
                                 wface::IAWAcceptorConnectorId* /*id*/) {
  Finish(ReasonOf(reason), MakeStream<TcpStream>(transport));
}

void Dialer::OnSSLConnected(long reason, sslutils::IAWSSLTransport* transport) {
  // TLS has a time limit of its own, which may be the shorter one.
  if (reason == sslutils::AW_SSL_ERROR_HANDSHAKE_TIME) reason = ETIMEDOUT;
  Finish(ReasonOf(reason), MakeStream<TlsStream>(transport));
}

void Dialer::Finish(long reason, std::unique_ptr<ByteStream> stream) {
  if (reason == 0 && stream == nullptr) reason = ENOMEM;
  if (const Done done = std::exchange(done_, nullptr)) done(reason, std::move(stream));
}

}  // namespace shttp
