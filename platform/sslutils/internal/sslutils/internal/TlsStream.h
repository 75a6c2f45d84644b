// TlsStream.h - one TLS connection over any byte transport: handshake, records, orderly end.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>

#include "keelbase/CAWAutoPtr.h"
#include "keelbase/CAWMessageBlock.h"
#include "keelbase/CAWReferenceControl.h"
#include "keelbase/CAWTransport.h"
#include "keelbase/internal/Engines.h"
#include "keelbase/internal/EventLoop.h"
#include "sslutils/CAWDefines.h"
#include "sslutils/CAWSSLTransport.h"
#include "sslutils/internal/ByteTransport.h"
#include "sslutils/internal/OwnedChain.h"
#include "sslutils/internal/TlsWriter.h"

struct ssl_st;

namespace sslutils::internal {

struct SslFree {
  SSLUTILS_API void operator()(ssl_st* ssl) const;
};
using SslPtr = std::unique_ptr<ssl_st, SslFree>;

// Plain bytes go in and out as with a StreamSocket, whose operations it has; below it, records.
// OpenSSL reads the received bytes where they lie, so that nothing of them is kept here but what
// one event had brought when reading stopped. Loop thread only, but for the count.
class SSLUTILS_API TlsStream final
    : public keelbase::CAWReferenceControlT<keelbase::CAWMutexThread>,
      private ByteSink,
      private keelbase::internal::TurnEndTask,
      private keelbase::internal::LingerTask {
 public:
  // `ssl` knows its role and all that it is to check.
  TlsStream(keelbase::internal::EventLoop& loop, std::unique_ptr<ByteTransport> lower, SslPtr ssl);
  ~TlsStream() override;
  void OnReferenceDestory() override {
    keelbase::internal::DisconnectOrDelete(*this, state_ == State::closed);
  }

  // Shakes hands. `done` comes once, with 0 or a reason, never from in here and never after
  // Disconnect; it may open, disconnect or drop the stream. After a reason `closed` comes once the
  // transport below is let go, unless Disconnect comes before.
  using Done = std::function<void(long reason)>;
  using Closed = std::function<void()>;
  void Start(std::chrono::milliseconds limit, Done done, Closed closed = nullptr);
  // It has failed, and the peer may still be reading why.
  bool IsRefused() const { return state_ == State::refused; }

  // See IAWSSLTransport. For a stream whose handshake has succeeded.
  keelbase::AWResult Open(ByteSink* sink);
  keelbase::AWResult Send(keelbase::CAWMessageBlock& chain);
  void Disconnect();
  void StopReading(bool stop);
  keelbase::AWResult AddLingerData(const keelbase::CAWMessageBlock& chain);
  keelbase::AWResult GetOption(int code, void* value) const;
  keelbase::AWResult SetOption(int code, void* value);

 private:
  // Start leads from fresh to shaking, a handshake that succeeds to ready, Open to open and the
  // peer's orderly end to ended. A handshake that we end leads to refused, while the peer's end is
  // awaited. Any other failure leads to closed; one of a ready stream waits for Open. Once there
  // was a handshake Disconnect leads to closing, while what was taken is written and the peer's end
  // is awaited; closed is the end of all.
  enum class State { fresh, shaking, refused, ready, open, ended, closing, closed };

  bool IsDisconnected() const { return state_ == State::closing || state_ == State::closed; }

  // Events of the transport below.
  void OnBytes(keelbase::CAWMessageBlock& block) override;
  void OnRoom() override;
  void OnEnd(long reason) override;

  void OnTurnEnd() override;

  // At exit this deadline is always past, so that Lingers::Finish calls AbandonLinger at once: the
  // transport below does the lingering.
  int LingerDescriptor() const override { return -1; }
  keelbase::internal::Clock::Point LingerDeadline() const override { return lingerBegin_; }
  void WriteLingering() override {}
  void AbandonLinger() override {
    if (state_ == State::refused) return CloseNow();
    bool awaitEnd = true;  // what the peer still sends, such as tickets, must not reset it
    lower_->SetOption(keelbase::internal::AW_OPT_AWAIT_END, &awaitEnd);
    LeaveToLower();
  }

  // OpenSSL's side.
  friend class TlsBio;
  std::size_t ReadBelow(char* data, std::size_t length);
  void WriteBelow(const char* data, std::size_t length);

  void ShakeHands();
  void Established(long reason);
  void Refuse(long reason);
  void Pump();
  bool FillBlock(keelbase::CAWMessageBlock& block);
  void Deliver(keelbase::CAWMessageBlock& block);
  void TellRoom();
  void End(long reason);
  void EndOfLower();
  void EndNextTurn();
  bool MayRead() const;
  bool AnswersWait() const;
  // What OpenSSL does not take would only be kept here.
  bool WantsBytes() const { return (reading_ || writer_.WaitsForPeer()) && !AnswersWait(); }
  void ReadLower(bool read);

  void GoOnWriting();
  void AfterWriting();
  void WantTurnEnd();
  CAWSSLInfo GetInfo() const;
  keelbase::CAWTransportCounters GetCounters() const;

  void WriteLast();
  void Drain();
  void LeaveToLower();
  void AwaitEnd();
  void CloseNow() { CloseNow(LingerLeft()); }
  void CloseNow(std::uint32_t lingerMs);
  std::uint32_t LingerLeft() const;

  keelbase::internal::EventLoop& loop_;
  std::unique_ptr<ByteTransport> lower_;
  SslPtr ssl_;
  State state_ = State::fresh;
  ByteSink* sink_ = nullptr;
  Done done_;
  Closed closed_;  // null once established

  // Received and not decrypted yet: during an event the transport's own block, else a copy of what
  // had to be left.
  keelbase::CAWMessageBlock* arriving_ = nullptr;
  OwnedChain kept_;
  bool reading_ = true;       // the owner wants to
  bool lowerReading_ = true;  // the transport below does
  bool lowerEnded_ = false;
  bool peerEnded_ = false;  // close_notify has come
  bool pumping_ = false;
  long endReason_ = 0;                                  // of the transport below
  std::unique_ptr<keelbase::internal::Timer> endTurn_;  // EndOfLower goes on in the next turn
  std::size_t turnRead_ = 0;                            // since EndOfLower began

  keelbase::CAWTransportCounters counters_;
  TlsWriter writer_;
  bool roomWanted_ = false;  // 10013 was answered
  bool dirty_ = false;       // OnTurnEnd is due

  keelbase::internal::EngineOptions options_;
  OwnedChain lingerData_;  // plain until there is room below
  keelbase::internal::Clock::Point lingerBegin_{};
  std::unique_ptr<keelbase::internal::Timer> timeLimit_;  // of handshake or linger
  keelbase::CAWAutoPtr<TlsStream> self_;                  // held while lingering
};

}  // namespace sslutils::internal
