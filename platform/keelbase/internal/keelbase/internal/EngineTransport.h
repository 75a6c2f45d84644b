// EngineTransport.h - a transport on an engine: what all of them do alike.
#pragma once

#include <utility>

#include "keelbase/CAWAutoPtr.h"
#include "keelbase/CAWMessageBlock.h"
#include "keelbase/internal/LoopObject.h"
#include "keelbase/internal/StreamSocket.h"

namespace keelbase::internal {

// Implements the library's transport Interface, whose events go to Sink, but for what addresses and
// options are there. The Engine (a StreamSocket or what has the same operations) is counted by
// itself, since it may have to write on when the transport is gone.
template <class Interface, class Sink, class Parameter, class Engine>
class EngineTransport : public LoopObject<Interface>, private StreamSocketSink {
 public:
  AWResult OpenWithSink(Sink* sink) final {
    if (sink == nullptr || sink_ != nullptr) return AW_ERROR_FAILURE;
    const AWResult result = engine_->Open(this);
    if (result == AW_OK) sink_ = sink;
    return result;
  }
  AWResult SendData(CAWMessageBlock& data, Parameter*) final { return engine_->Send(data); }
  AWResult Disconnect(long /*reason*/) final {
    sink_ = nullptr;
    if (!this->GetLoop().IsLeftToParent()) engine_->Disconnect();
    return AW_OK;
  }

 protected:
  EngineTransport(EventLoop& loop, Engine* engine) : LoopObject<Interface>(loop), engine_(engine) {}
  ~EngineTransport() override { engine_->Disconnect(); }

  Engine& GetEngine() const { return *engine_; }

 private:
  void OnBytes(CAWMessageBlock& block) final {
    const auto alive = this->Hold();
    if (!alive) return;
    sink_->OnReceive(block, this, nullptr);
  }
  void OnRoom() final {
    const auto alive = this->Hold();
    if (!alive) return;
    sink_->OnSend(this, nullptr);
  }
  void OnEnd(long reason) final {
    const auto alive = this->Hold();
    if (!alive) return;
    std::exchange(sink_, nullptr)->OnDisconnect(reason, this);
  }

  const CAWAutoPtr<Engine> engine_;
  Sink* sink_ = nullptr;
};

}  // namespace keelbase::internal
