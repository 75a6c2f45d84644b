// StreamSocket.h - one connected stream socket of a loop: local IPC and TCP stand on it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

#include "keelbase/CAWAutoPtr.h"
#include "keelbase/CAWMessageBlock.h"
#include "keelbase/CAWTransport.h"
#include "keelbase/internal/BufferPool.h"
#include "keelbase/internal/Engines.h"
#include "keelbase/internal/EventLoop.h"
#include "keelbase/internal/FileDescriptor.h"
#include "keelbase/internal/LoopCounted.h"

namespace keelbase::internal {

// Set, bool, beside the codes of CAWTransport.h: Disconnect awaits the peer's end also when nothing
// is unread. For protocols whose peers may send at any time.
inline constexpr int AW_OPT_AWAIT_END = 116;

// What a transport does with its socket's events. Never called from inside an operation.
class StreamSocketSink {
 public:
  virtual void OnBytes(CAWMessageBlock& block) = 0;
  virtual void OnRoom() = 0;
  virtual void OnEnd(long reason) = 0;  // the last one

 protected:
  ~StreamSocketSink() = default;
};

// Reads up to 64 KiB an event; gathers small sends and writes them when 64 KiB are together or the
// turn ends; writes large ones at once without a copy. See the transport interfaces for the
// contract. Loop thread only.
class KEELBASE_API StreamSocket final : public LoopCounted,
                                        private Watcher,
                                        private TurnEndTask,
                                        private LingerTask {
 public:
  StreamSocket(EventLoop& loop, FileDescriptor descriptor);
  ~StreamSocket() override;

  // Starts the events. 10001 for null and for a second call.
  AWResult Open(StreamSocketSink* sink);

  // See IAW...Transport::SendData.
  AWResult Send(CAWMessageBlock& chain);

  // Detaches the sink; what was taken is written, within the linger time. If anything was
  // ever written and input is unread (or AW_OPT_AWAIT_END set), the close waits as long for the
  // peer's, and drops what comes meanwhile, up to 16 MiB.
  void Disconnect();

  void StopReading(bool stop);
  AWResult AddLingerData(const CAWMessageBlock& chain);
  CAWTransportCounters GetCounters() const;

  // AW_OPT_AWAIT_END and the common codes but the addresses and credentials. 10001 for any other.
  AWResult GetOption(int code, void* value) const;
  AWResult SetOption(int code, const void* value);

  int GetDescriptor() const { return descriptor_.Get(); }
  EventLoop& GetLoop() const { return loop_; }

 private:
  // Open leads from fresh to open, the peer's end or an error to ended. From each of these
  // Disconnect leads to lingering, while what was taken is written, and on to draining, while the
  // peer's input is dropped until its end; closed is the end of all.
  enum class State { fresh, open, ended, lingering, draining, closed };

  bool IsDisconnected() const {
    return state_ == State::lingering || state_ == State::draining || state_ == State::closed;
  }

  void OnLastReference() override { DisconnectOrDelete(*this, state_ == State::closed); }
  void OnReady(std::uint32_t events) override;
  bool OnSpin() override;
  void OnTurnEnd() override;
  int LingerDescriptor() const override { return descriptor_.Get(); }
  std::uint32_t LingerEvents() const override {
    return state_ == State::draining ? EPOLLIN : EPOLLOUT;
  }
  Clock::Point LingerDeadline() const override { return lingerEnd_; }
  void WriteLingering() override;
  void AbandonLinger() override { CloseNow(); }

  bool ReadOnce();
  void ReadRest();
  void Deliver(CAWMessageBlock& block);
  void TellRoom();
  void End(long reason);
  void CloseNow();
  void UpdateWatch();
  void Unwatch();

  void GiveGather();
  std::size_t Gathered() const { return gatherEnd_ - gatherBegin_; }
  bool CopyIn(CAWMessageBlock& chain, std::size_t length);
  void WantTurnEnd();
  bool WriteOut(CAWMessageBlock* chain);
  void WriteAgain();
  void WriteLingerData();
  bool GoOnClosing();
  bool HasInput() const;
  bool DropInput();
  void Written(std::size_t count);
  void WriteFailed(int error);
  bool HasOutput() const { return Gathered() != 0 || lingerData_ != nullptr; }

  EventLoop& loop_;
  FileDescriptor descriptor_;
  StreamSocketSink* sink_ = nullptr;
  State state_ = State::fresh;
  bool watched_ = false;
  bool reading_ = true;
  bool blocked_ = false;     // the system takes no more; EPOLLOUT will tell
  bool roomWanted_ = false;  // 10013 was answered
  bool dirty_ = false;       // OnTurnEnd is due
  int writeError_ = 0;
  std::uint32_t watchedEvents_ = 0;

  std::unique_ptr<BufferPool::GatherBuffer> gather_;
  std::size_t gatherBegin_ = 0;
  std::size_t gatherEnd_ = 0;

  EngineOptions options_;
  bool awaitsEnd_ = false;
  Clock::Point lingerEnd_{};
  std::size_t dropped_ = 0;  // bytes that came behind our end
  std::unique_ptr<CAWMessageBlock> lingerData_;
  std::unique_ptr<Timer> lingerTimer_;
  CAWAutoPtr<StreamSocket> self_;  // held while lingering

  CAWTransportCounters counters_;
};

}  // namespace keelbase::internal
