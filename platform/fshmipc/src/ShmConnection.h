// ShmConnection.h - one connection over shared memory: two rings, and a socket that wakes and tells
// the end.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

#include "ShmRing.h"
#include "ShmSegment.h"
#include "keelbase/CAWMessageBlock.h"
#include "keelbase/CAWTransport.h"
#include "keelbase/internal/Engines.h"
#include "keelbase/internal/LoopCounted.h"
#include "keelbase/internal/StreamSocket.h"

namespace fshmipc {

// While it has something to do the loop polls the ring; when the loop is about to sleep, the
// connection asks the peer, in the shared memory, to be woken by a byte on the socket. The socket's
// end is the peer's end, however it came about. See IAWShmIPCTransport for the contract. Loop
// thread only.
class ShmConnection final : public keelbase::internal::LoopCounted,
                            private keelbase::internal::Watcher,
                            private keelbase::internal::Poller,
                            private keelbase::internal::TurnEndTask,
                            private keelbase::internal::LingerTask {
 public:
  enum class Side { connector, acceptor };

  ShmConnection(keelbase::internal::EventLoop& loop, FileDescriptor socket, ShmSegment segment,
                Side side);
  ~ShmConnection() override { CloseNow(); }

  // As StreamSocket has them.
  keelbase::AWResult Open(keelbase::internal::StreamSocketSink* sink);
  keelbase::AWResult Send(keelbase::CAWMessageBlock& chain);
  void Disconnect();
  void StopReading(bool stop);
  keelbase::AWResult AddLingerData(const keelbase::CAWMessageBlock& chain);
  keelbase::AWResult GetOption(int code, void* value) const;
  keelbase::AWResult SetOption(int code, const void* value);

 private:
  enum class State { fresh, open, ended, lingering, closed };

  bool IsDisconnected() const { return state_ == State::lingering || state_ == State::closed; }

  void OnLastReference() override {
    keelbase::internal::DisconnectOrDelete(*this, state_ == State::closed);
  }
  void OnReady(std::uint32_t events) override;
  bool Poll() override;
  bool Arm() override;
  void OnTurnEnd() override;
  int LingerDescriptor() const override { return socket_.Get(); }
  std::uint32_t LingerEvents() const override { return EPOLLIN; }
  keelbase::internal::Clock::Point LingerDeadline() const override { return lingerEnd_; }
  void WriteLingering() override;
  void AbandonLinger() override { CloseNow(); }

  void KeepPolling();
  void StopPolling();
  void DrainSocket();

  bool ReadOnce();
  std::size_t CopyOut(std::size_t available, keelbase::CAWMessageBlock& block);
  void ReadRest(int failure);
  bool TellRoom();
  void End(long reason);

  std::size_t Write(const keelbase::CAWMessageBlock& chain);
  std::size_t WriteMuch(const keelbase::CAWMessageBlock& chain);
  std::size_t WriteLittle(const keelbase::CAWMessageBlock& chain);
  std::size_t WriteByPieces(const keelbase::CAWMessageBlock& chain);
  void Publish();
  void WakePeerUnlessHere();
  void WakePeer();
  void Failed(int error);
  void Leave();
  bool WriteLingerData();
  void BeginLinger();
  void CloseNow();

  keelbase::internal::EventLoop& loop_;
  FileDescriptor socket_;
  ShmSegment segment_;
  RingWriter writer_;
  RingReader reader_;
  keelbase::internal::StreamSocketSink* sink_ = nullptr;
  State state_ = State::fresh;
  bool watched_ = false;
  bool polled_ = false;
  bool reading_ = true;
  bool roomWanted_ = false;  // 10013 was answered
  bool dirty_ = false;       // OnTurnEnd is due
  std::uint32_t asks_ = 0;   // to be woken, since what came was read off
  int failure_ = 0;          // why we cannot go on

  keelbase::internal::EngineOptions options_;
  keelbase::internal::Clock::Point lingerEnd_{};
  std::unique_ptr<keelbase::CAWMessageBlock> lingerData_;
  std::unique_ptr<keelbase::internal::Timer> lingerTimer_;
  keelbase::CAWAutoPtr<ShmConnection> self_;  // held while lingering

  keelbase::CAWTransportCounters counters_;
};

}  // namespace fshmipc
