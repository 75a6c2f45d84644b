// Dialer.h - connects to the server of a url, by TCP or TLS.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "NameLookup.h"
#include "Url.h"
#include "keelbase/CAWAutoPtr.h"
#include "keelbase/internal/StreamSocket.h"
#include "sslutils/CAWSSLManager.h"
#include "wface/CAWConnectionManager.h"

namespace shttp {

// A connection, whatever carries it. Ends with the object.
class ByteStream {
 public:
  using Sink = keelbase::internal::StreamSocketSink;

  virtual ~ByteStream() = default;
  virtual keelbase::AWResult Open(Sink* sink) = 0;
  virtual keelbase::AWResult Send(keelbase::CAWMessageBlock& chain) = 0;
  virtual keelbase::AWResult GetOption(int code, void* value) = 0;
  virtual keelbase::AWResult SetOption(int code, void* value) = 0;
};

// All on the loop's thread.
class Dialer final : private wface::IAWAcceptorConnectorSink,
                     private sslutils::IAWSSLConnectionSink {
 public:
  // The connection, or why there is none: an errno value or a reason of sslutils.
  using Done = std::function<void(long reason, std::unique_ptr<ByteStream> stream)>;

  explicit Dialer(keelbase::internal::EventLoop& loop) : loop_(loop) {}
  ~Dialer() override = default;
  Dialer(const Dialer&) = delete;
  Dialer& operator=(const Dialer&) = delete;

  // Calls `done` later, once. 0, or an errno value and no call comes.
  int Start(const Url& url, Done done);
  void Stop();  // no call comes

 private:
  int Connect(const keelbase::CAWInetAddr& address);
  int ConnectTls(const keelbase::CAWInetAddr& address);
  void OnConnectIndication(long reason, wface::IAWTransport* transport,
                           wface::IAWAcceptorConnectorId* id) override;
  void OnSSLConnected(long reason, sslutils::IAWSSLTransport* transport) override;
  void Finish(long reason, std::unique_ptr<ByteStream> stream);

  keelbase::internal::EventLoop& loop_;
  bool tls_ = false;
  std::string serverName_;
  Done done_;
  NameLookup lookup_;
  keelbase::CAWAutoPtr<wface::IAWConnector> tcp_;
  keelbase::CAWAutoPtr<sslutils::IAWSSLConnector> ssl_;
};

}  // namespace shttp
