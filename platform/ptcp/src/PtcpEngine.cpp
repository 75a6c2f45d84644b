// PtcpEngine.cpp - see PtcpEngine.h.
#include "PtcpEngine.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <new>
#include <utility>

#include "keelbase/internal/Chains.h"
#include "keelbase/internal/TellOwner.h"
#include "ptcp/CAWPseudoTCPTransport.h"

namespace ptcp {

using keelbase::AW_ERROR_FAILURE;
using keelbase::AW_ERROR_NOT_INITIALIZED;
using keelbase::AW_ERROR_PARTIAL_DATA;
using keelbase::AW_OK;
using keelbase::AWResult;
using keelbase::CAWAutoPtr;
using keelbase::CAWMessageBlock;

namespace {

constexpr std::size_t kQueueLimit = std::size_t{4} << 20;
constexpr std::size_t kGathered = 64 * 1024;  // from here on it is sent before the turn's end

}  // namespace

PtcpEngine::PtcpEngine(keelbase::internal::EventLoop& loop, const CAWAutoPtr<UdpPort>& port,
                       const Path& path)
    : loop_(loop),
      port_(port),
      path_(path),
      connection_(*this, port->IsLoopback(path.peer)),
      timer_(loop),
      queueLimit_(kQueueLimit) {}

bool PtcpEngine::AddId(const ConnectionId& id) {
  ids_.reserve(ids_.size() + 1);
  if (!port_->AddId(id, *this)) return false;
  ids_.push_back(id);
  return true;
}

void PtcpEngine::RemoveId(const ConnectionId& id) {
  if (std::erase(ids_, id) != 0) port_->RemoveId(id);
}

// --- handshake ---

bool PtcpEngine::Connect(OnHandshake done) {
  handshake_ = std::move(done);
  if (!connection_.Connect(Now())) return false;
  WantTurnEnd();
  return true;
}

bool PtcpEngine::Accept(const InitialHeader& initial, const ConnectionId& original, Bytes datagram,
                        Time now, OnHandshake done) {
  if (!AddId(initial.destination) || !connection_.Accept(initial, original, now)) return false;
  connection_.Receive(datagram, now);
  if (connection_.IsDead()) return false;
  handshake_ = std::move(done);
  WantTurnEnd();
  return true;
}

void PtcpEngine::Abort() {
  const CAWAutoPtr<PtcpEngine> alive(this);
  if (state_ != State::handshake) return;
  handshake_ = nullptr;
  if (!loop_.IsLeftToParent()) {
    connection_.Close(false, Now());
    port_->FlushBatch();
  }
  CloseNow();
}

void PtcpEngine::ServeHandshake() {
  if (connection_.IsDead()) {
    const int error = connection_.Reason() != 0 ? connection_.Reason() : ECONNRESET;
    const OnHandshake done = std::exchange(handshake_, nullptr);
    CloseNow();
    if (done != nullptr) done(error);
  } else if (connection_.IsEstablished()) {
    state_ = State::fresh;
    const OnHandshake done = std::exchange(handshake_, nullptr);
    done(0);
  }
}

// --- events ---

AWResult PtcpEngine::Open(keelbase::internal::StreamSocketSink* sink) {
  loop_.CheckCurrent("a transport's OpenWithSink");
  if (sink == nullptr || state_ != State::fresh) return AW_ERROR_FAILURE;
  sink_ = sink;
  state_ = State::open;
  WantTurnEnd();  // there may be bytes already, or the end
  return AW_OK;
}

void PtcpEngine::OnBatchEnd() {
  const CAWAutoPtr<PtcpEngine> alive(this);
  Serve();
  WantTurnEnd();
}

// A peer's port that is closed does not come back with our connection. Other complaints may pass.
void PtcpEngine::OnPortError(int error) {
  if (error == EMSGSIZE || error == ENOBUFS) return;
  if (state_ == State::handshake) return connection_.Fail(error);
  if (error == ECONNREFUSED) connection_.Fail(ECONNRESET);
}

void PtcpEngine::WantTurnEnd() {
  if (state_ != State::closed && !std::exchange(dirty_, true)) loop_.AtTurnEnd(*this);
}

void PtcpEngine::OnTurnEnd() {
  const CAWAutoPtr<PtcpEngine> alive(this);
  dirty_ = false;
  Flush();
  Serve();
  Schedule();
}

void PtcpEngine::Flush() {
  if (!onPort_ || port_->IsBlocked()) return;
  const std::uint64_t writes = port_->Writes();
  connection_.Flush(Now());
  port_->FlushBatch();
  counters_.systemCallsSent += port_->Writes() - writes;
}

void PtcpEngine::WaitUntilFree() {
  if (awaitsPort_) return;
  try {
    port_->WaitUntilFree(*this);
    awaitsPort_ = true;
  } catch (const std::bad_alloc&) {
    connection_.Fail(ENOMEM);
    WantTurnEnd();
  }
}

void PtcpEngine::OnPortFree() {
  awaitsPort_ = false;
  WantTurnEnd();
}

// A timer that is due too early only looks and is set again: cheaper than setting it for each
// packet. This flush or another's may have blocked the port.
void PtcpEngine::Schedule() {
  if (!onPort_ || connection_.IsDead()) return;
  if (port_->IsBlocked()) WaitUntilFree();
  const Time due = LingerDue();
  if (due == kNever || due >= timerDue_) return;
  const Time now = Now();
  const auto wait = std::chrono::nanoseconds(due > now ? due - now : 0);
  timer_.Start(std::chrono::ceil<std::chrono::microseconds>(wait), 1, [this] { OnTimer(); });
  timerDue_ = due;
}

void PtcpEngine::OnTimer() {
  timerDue_ = kNever;
  connection_.OnTimer(Now());
  WantTurnEnd();
}

void PtcpEngine::Serve() {
  switch (state_) {
    case State::handshake:
      return ServeHandshake();
    case State::open:
      return ServeOpen();
    case State::lingering:
      return ServeLinger();
    default:
      return;
  }
}

// The end is noticed and told also while nothing is read; what came before it is delivered then.
void PtcpEngine::ServeOpen() {
  const bool over = connection_.IsDead() || connection_.HasPeerFinished();
  while (state_ == State::open && connection_.Readable() != 0 && (reading_ || over)) ReadOnce();
  TellRoom();
  if (state_ != State::open || !over || connection_.Readable() != 0) return;
  End(connection_.HasPeerFinished() ? 0 : connection_.Reason());
}

void PtcpEngine::ReadOnce() {
  try {
    CAWMessageBlock& block = loop_.Buffers().TakeReadBlock();
    const std::size_t length = connection_.Read(block.GetWritePtr(), options_.readSize);
    block.AdvanceWritePtr(length);
    WantTurnEnd();  // the peer may be waiting for the room that this makes
    ++counters_.blocksReceived;
    counters_.bytesReceived += length;
    sink_->OnBytes(block);
  } catch (const std::bad_alloc&) {
    End(ENOMEM);
  }
}

void PtcpEngine::StopReading(bool stop) {
  reading_ = !stop;
  if (reading_) WantTurnEnd();
}

void PtcpEngine::TellRoom() {
  if (!roomWanted_ || state_ != State::open || connection_.IsDead() ||
      connection_.Unsent() >= queueLimit_)
    return;
  roomWanted_ = false;
  try {
    sink_->OnRoom();
  } catch (const std::bad_alloc&) {
    End(ENOMEM);
  }
}

void PtcpEngine::End(long reason) {
  if (state_ != State::open) return;
  state_ = State::ended;
  connection_.Close(reason == 0, Now());
  port_->FlushBatch();
  LeavePort();
  keelbase::internal::TellOwner(
      [sink = std::exchange(sink_, nullptr), reason] { sink->OnEnd(reason); });
}

// --- sending ---

AWResult PtcpEngine::Send(CAWMessageBlock& chain) {
  loop_.CheckCurrent("a transport's SendData");
  if (IsDisconnected()) return AW_ERROR_NOT_INITIALIZED;
  if (connection_.IsDead() && connection_.Reason() != 0)
    return static_cast<AWResult>(connection_.Reason());
  if (state_ == State::ended || connection_.IsDead()) return AW_ERROR_FAILURE;
  if (!keelbase::internal::HasBytes(chain)) return AW_OK;
  if (connection_.Unsent() >= queueLimit_) {
    ++counters_.partialSends;
    roomWanted_ = true;
    WantTurnEnd();
    return AW_ERROR_PARTIAL_DATA;
  }
  const std::size_t length = chain.GetChainedLength();
  try {
    CopyIn(chain, length);
  } catch (const std::bad_alloc&) {
    return AW_ERROR_FAILURE;
  }
  chain.AdvanceChainedReadPtr(length);
  ++counters_.blocksSent;
  counters_.queuedHighMark =
      std::max<std::uint64_t>(counters_.queuedHighMark, connection_.Unsent());
  WantTurnEnd();
  if (connection_.Unsent() >= kGathered) Flush();
  return AW_OK;
}

void PtcpEngine::CopyIn(const CAWMessageBlock& chain, std::size_t length) {
  connection_.Reserve(length);
  for (const CAWMessageBlock* block = &chain; block != nullptr; block = block->GetNext())
    connection_.Send(block->GetReadPtr(), block->GetLength());
}

// --- closing ---

void PtcpEngine::Disconnect() {
  loop_.CheckCurrent("a transport's Disconnect");
  if (IsDisconnected()) return;
  if (state_ == State::handshake) return Abort();
  const CAWAutoPtr<PtcpEngine> alive(this);
  const bool gone = state_ == State::ended || connection_.IsDead();
  sink_ = nullptr;
  state_ = State::lingering;
  if (gone) return CloseNow();
  try {
    if (lingerData_ != nullptr) CopyIn(*lingerData_, lingerData_->GetChainedLength());
    port_->BeginLinger(*this);
  } catch (const std::bad_alloc&) {
    connection_.Close(false, Now());  // the peer must not take this for the end
    port_->FlushBatch();
    return CloseNow();
  }
  lingerEnd_ = Now() + Time{options_.lingerMs} * 1000000;
  self_ = this;
  connection_.Finish();
  Flush();
  ServeLinger();
  if (state_ == State::lingering) Schedule();
}

// All has arrived, or the peer needs no more, or the time is over.
void PtcpEngine::ServeLinger() {
  if (!connection_.IsDead() && !connection_.IsFinishAcknowledged() && Now() < lingerEnd_) return;
  connection_.Close(connection_.IsAllAcknowledged(), Now());
  port_->FlushBatch();
  CloseNow();
}

void PtcpEngine::OnLinger() {
  const CAWAutoPtr<PtcpEngine> alive(this);
  connection_.OnTimer(Now());
  Flush();
  ServeLinger();
}

AWResult PtcpEngine::AddLingerData(const CAWMessageBlock& chain) {
  if (IsDisconnected()) return AW_ERROR_NOT_INITIALIZED;
  return keelbase::internal::AppendCopy(lingerData_, chain);
}

// From here on the port answers for us that there is no such connection.
void PtcpEngine::LeavePort() {
  if (!std::exchange(onPort_, false)) return;
  for (const ConnectionId& id : ids_) port_->RemoveId(id);
  ids_.clear();
  port_->Remove(*this);
  timer_.Cancel();
  timerDue_ = kNever;
}

void PtcpEngine::CloseNow() {
  if (state_ == State::closed) return;
  state_ = State::closed;
  sink_ = nullptr;
  connection_.Fail(ECONNABORTED);
  LeavePort();
  if (std::exchange(dirty_, false)) loop_.DropTurnEnd(*this);
  lingerData_.reset();
  const CAWAutoPtr<PtcpEngine> last(std::move(self_));
}

// --- options ---

AWResult PtcpEngine::GetOption(int code, void* value) const {
  if (value == nullptr) return AW_ERROR_FAILURE;
  if (code == AW_OPT_UNACKNOWLEDGED) {
    *static_cast<std::uint64_t*>(value) = connection_.Unacknowledged();
    return AW_OK;
  }
  if (code != keelbase::AW_OPT_COUNTERS) return AW_ERROR_FAILURE;
  auto& counters = *static_cast<keelbase::CAWTransportCounters*>(value);
  counters = counters_;
  counters.bytesSent = connection_.Acknowledged();
  counters.queuedBytes = connection_.Unsent();
  return AW_OK;
}

AWResult PtcpEngine::SetOption(int code, const void* value) {
  const auto result = keelbase::internal::SetCommonOption(*this, options_, code, value);
  if (result) return *result;
  const auto limit = static_cast<const std::uint32_t*>(value);
  if (code != AW_OPT_SEND_QUEUE_LIMIT || *limit == 0) return AW_ERROR_FAILURE;
  queueLimit_ = *limit;
  return AW_OK;
}

}  // namespace ptcp
