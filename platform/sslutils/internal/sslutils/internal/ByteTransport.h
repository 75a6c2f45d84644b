// ByteTransport.h - what TLS needs of the transport below it.
#pragma once

#include "keelbase/CAWAutoPtr.h"
#include "keelbase/CAWError.h"
#include "keelbase/CAWMessageBlock.h"
#include "keelbase/internal/StreamSocket.h"

namespace sslutils::internal {

using ByteSink = keelbase::internal::StreamSocketSink;

// See keelbase/CAWTransport.h and the transport interfaces for what the operations promise. After
// Disconnect no event comes.
class ByteTransport {
 public:
  virtual ~ByteTransport() = default;
  virtual keelbase::AWResult Open(ByteSink* sink) = 0;
  virtual keelbase::AWResult Send(keelbase::CAWMessageBlock& chain) = 0;
  virtual void Disconnect() = 0;
  virtual keelbase::AWResult GetOption(int code, void* value) = 0;
  virtual keelbase::AWResult SetOption(int code, void* value) = 0;
};

// A transport of a platform library.
template <class Transport, class TransportSink, class Parameter>
class TransportBytes final : public ByteTransport, private TransportSink {
 public:
  explicit TransportBytes(Transport* transport) : transport_(transport) {}
  ~TransportBytes() override { transport_->Disconnect(0); }

  keelbase::AWResult Open(ByteSink* sink) override {
    sink_ = sink;
    return transport_->OpenWithSink(this);
  }
  keelbase::AWResult Send(keelbase::CAWMessageBlock& chain) override {
    return transport_->SendData(chain, nullptr);
  }
  void Disconnect() override { transport_->Disconnect(0); }
  keelbase::AWResult GetOption(int code, void* value) override {
    return transport_->GetOption(code, value);
  }
  keelbase::AWResult SetOption(int code, void* value) override {
    return transport_->SetOption(code, value);
  }

 private:
  void OnReceive(keelbase::CAWMessageBlock& data, Transport*, Parameter*) override {
    sink_->OnBytes(data);
  }
  void OnSend(Transport*, Parameter*) override { sink_->OnRoom(); }
  void OnDisconnect(long reason, Transport*) override { sink_->OnEnd(reason); }

  const keelbase::CAWAutoPtr<Transport> transport_;
  ByteSink* sink_ = nullptr;
};

}  // namespace sslutils::internal
