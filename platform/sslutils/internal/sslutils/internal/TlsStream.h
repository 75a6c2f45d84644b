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
#include "keelbase/internal/EventLoop.h"
#include "sslutils/CAWDefines.h"
#include "sslutils/CAWSSLTransport.h"
#include "sslutils/internal/ByteTransport.h"
#include "sslutils/internal/OwnedChain.h"

struct ssl_st;

namespace sslutils::internal {

struct SslFree {
  SSLUTILS_API void operator()(ssl_st* ssl) const;
};
using SslPtr = std::unique_ptr<ssl_st, SslFree>;

// Plain bytes go in and out as with a StreamSocket, whose operations it has; below it, records.
// OpenSSL reads the received bytes where they lie and gives its records straight to the transport
// below, so that nothing is kept here but a record that is being filled or cannot be written yet,
// what found no room below, and what one event had brought when reading stopped. Loop thread only,
// but for the count.
class SSLUTILS_API TlsStream final
    : public keelbase::CAWReferenceControlT<keelbase::CAWMutexThread>,
      private ByteSink,
      private keelbase::internal::TurnEndTask,
      private keelbase::internal::LingerTask {
 public:
  // `ssl` knows its role and all that it is to check.
  TlsStream(keelbase::internal::EventLoop& loop, std::unique_ptr<ByteTransport> lower, SslPtr ssl);
  ~TlsStream() override;
  void OnReferenceDestory() override;

  // Shakes hands. `done` comes once, with 0 or a reason, never from in here and never after
  // Disconnect; it may open, disconnect or drop the stream.
  using Done = std::function<void(long reason)>;
  void Start(std::chrono::milliseconds limit, Done done);

  // See IAWSSLTransport. For a stream whose handshake has succeeded.
  keelbase::AWResult Open(ByteSink* sink);
  keelbase::AWResult Send(keelbase::CAWMessageBlock& chain);
  void Disconnect();
  keelbase::AWResult GetOption(int code, void* value) const;
  keelbase::AWResult SetOption(int code, void* value);

 private:
  enum class State { fresh, shaking, ready, open, ended, closing, closed };

  // Events of the transport below.
  void OnBytes(keelbase::CAWMessageBlock& block) override;
  void OnRoom() override;
  void OnEnd(long reason) override;

  void OnTurnEnd() override;

  // The last seconds of a process: the transport below lingers in its own way.
  int LingerDescriptor() const override { return -1; }
  keelbase::internal::Clock::Point LingerDeadline() const override { return lingerBegin_; }
  void WriteLingering() override {}
  void AbandonLinger() override {
    bool awaitEnd = true;  // what the peer still sends, such as tickets, must not reset it
    lower_->SetOption(keelbase::internal::AW_OPT_AWAIT_END, &awaitEnd);
    LeaveToLower();
  }

  // OpenSSL's side.
  friend class TlsBio;
  std::size_t ReadBelow(char* data, std::size_t length);
  std::size_t WriteBelow(const char* data, std::size_t length);

  void ShakeHands();
  void Established(long reason);
  void Pump();
  bool FillBlock(keelbase::CAWMessageBlock& block);
  void Deliver(keelbase::CAWMessageBlock& block);
  void TellRoom();
  void End(long reason);
  void EndOfLower();
  void EndNextTurn();
  bool MayRead() const;
  bool AnswersWait() const;
  void StopReading(bool stop);
  // What OpenSSL does not take would only be kept here.
  bool WantsBytes() const { return (reading_ || writeBlocked_) && !AnswersWait(); }
  void ReadLower(bool read);

  std::size_t TakeSome(keelbase::CAWMessageBlock& block);
  bool SendBelow(keelbase::CAWMessageBlock& chain);
  void WriteRest();
  void WriteRecord(const char* data, std::size_t length);
  void WritePending();
  void KeepPending(const char* data, std::size_t length);
  void FailWriting(long reason);
  bool FlushGather();
  void GoOnWriting();
  std::size_t Gathered() const { return gather_ == nullptr ? 0 : gather_->GetLength(); }
  bool IsBlocked() const { return pending_ != nullptr || (!rest_.IsEmpty() && !leaving_); }
  void WantTurnEnd();
  keelbase::AWResult AddLingerData(const keelbase::CAWMessageBlock& chain);
  CAWSSLInfo GetInfo() const;
  std::uint64_t Queued() const;
  void NoteQueued();
  keelbase::CAWTransportCounters GetCounters() const;

  void WriteLast();
  void Drain();
  void LeaveToLower();
  void CloseNow() { CloseNow(LingerLeft()); }
  void CloseNow(std::uint32_t lingerMs);
  std::uint32_t LingerLeft() const;

  keelbase::internal::EventLoop& loop_;
  std::unique_ptr<ByteTransport> lower_;
  SslPtr ssl_;
  State state_ = State::fresh;
  ByteSink* sink_ = nullptr;
  Done done_;

  // Received and not decrypted yet: during an event the transport's own block, else a copy of what
  // had to be left.
  keelbase::CAWMessageBlock* arriving_ = nullptr;
  OwnedChain kept_;
  bool reading_ = true;       // the owner wants to
  bool lowerReading_ = true;  // the transport below does
  bool lowerEnded_ = false;
  bool peerEnded_ = false;  // close_notify has come
  bool pumping_ = false;
  long endReason_ = 0;        // of the transport below
  std::size_t turnRead_ = 0;  // since what waited for the end is read
  std::size_t readSize_;

  std::unique_ptr<keelbase::CAWMessageBlock> gather_;   // a record that is being filled
  std::unique_ptr<keelbase::CAWMessageBlock> pending_;  // one that OpenSSL has not taken yet
  OwnedChain rest_;                                     // encrypted; found no room below
  bool writeBlocked_ = false;                           // writing goes on when bytes have come
  bool lastWritten_ = false;                            // our end has gone out
  bool leaving_ = false;                                // no more room will be told
  bool roomWanted_ = false;                             // 10013 was answered
  bool dirty_ = false;                                  // OnTurnEnd is due
  long writeError_ = 0;                                 // nothing more can be sent
  bool failed_ = false;                                 // and the transport below does not know

  std::uint32_t lingerMs_ = 2000;
  OwnedChain lingerData_;  // plain until there is room below
  keelbase::internal::Clock::Point lingerBegin_{};
  std::unique_ptr<keelbase::internal::Timer> timer_;  // of handshake, end, linger
  keelbase::CAWAutoPtr<TlsStream> self_;              // held while lingering

  keelbase::CAWTransportCounters counters_;
};

}  // namespace sslutils::internal
