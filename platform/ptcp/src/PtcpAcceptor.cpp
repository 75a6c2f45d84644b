// PtcpAcceptor.cpp - see PtcpAcceptor.h.
#include "PtcpAcceptor.h"

#include <array>
#include <cerrno>
#include <new>
#include <utility>

#include "ClockAndRandom.h"
#include "PtcpTransport.h"

namespace ptcp {

using keelbase::AW_ERROR_FAILURE;
using keelbase::AW_OK;
using keelbase::AWResult;
using keelbase::CAWAutoPtr;
using keelbase::CAWInetAddr;

namespace {

constexpr std::size_t kDefaultHalfOpen = 256;
constexpr std::size_t kProvedFactor = 4;  // so many times the limit when addresses are proved

CAWInetAddr HostOf(CAWInetAddr peer) {
  peer.SetPort(0);
  return peer;
}

}  // namespace

PtcpAcceptor::PtcpAcceptor(keelbase::internal::EventLoop& loop)
    : LoopObject(loop), tokens_(RandomKey()) {}

AWResult PtcpAcceptor::StartListen(IAWPseudoTCPAcceptorConnectorSink* sink, const CAWInetAddr& addr,
                                   int backlog) {
  if (sink == nullptr) return AW_ERROR_FAILURE;
  AWResult result = AW_ERROR_FAILURE;
  GetLoop().Call([&] {
    if (sink_ != nullptr) return;
    halfOpenLimit_ = backlog > 0 ? static_cast<std::size_t>(backlog) : kDefaultHalfOpen;
    try {
      result = static_cast<AWResult>(Listen(addr));
    } catch (const std::bad_alloc&) {
      result = ENOMEM;
    }
    if (result == AW_OK) {
      sink_ = sink;
    } else {
      port_ = nullptr;
    }
  });
  return result;
}

AWResult PtcpAcceptor::StopListen() {
  GetLoop().Call([this] { Stop(); });
  return AW_OK;
}

CAWInetAddr PtcpAcceptor::GetLocalAddr() const {
  CAWInetAddr local;
  GetLoop().Call([&] { local = local_; });
  return local;
}

int PtcpAcceptor::Listen(const CAWInetAddr& addr) {
  port_ = UdpPort::Find(GetLoop(), addr);
  if (!port_) {
    port_ = new UdpPort(GetLoop());
    if (const int error = port_->Open(&addr, nullptr); error != 0) return error;
  }
  port_->Listen(
      [this](const Path& from, Bytes datagram, Time now) { OnStranger(from, datagram, now); });
  local_ = port_->GetLocalAddr();
  return 0;
}

void PtcpAcceptor::Stop() {
  if (sink_ == nullptr) return;
  sink_ = nullptr;
  port_->Listen(nullptr);
  const auto halfOpen = std::exchange(halfOpen_, {});
  provedOf_.clear();
  for (const auto& [engine, place] : halfOpen) engine->Abort();
  port_ = nullptr;
}

// Without memory this packet was not seen; the client sends it again.
void PtcpAcceptor::OnStranger(const Path& from, Bytes datagram, Time now) {
  const auto alive = Hold();
  if (!alive) return;
  const auto initial = ReadInitial(datagram);
  if (!initial) return;
  try {
    if (initial->token.empty()) {
      if (halfOpen_.size() >= halfOpenLimit_) return AskAgain(from, *initial, now);
      return Admit(from, *initial, initial->destination, datagram, now);
    }
    const auto original = tokens_.Check(initial->token, from.peer, initial->destination, now);
    if (original && HasRoomForProved(from)) Admit(from, *initial, *original, datagram, now);
  } catch (const std::bad_alloc&) {
  }
}

// A token keeps out who only claims an address. Whoever receives can get many, so these are bounded
// too, and for each host, or one would take all places.
bool PtcpAcceptor::HasRoomForProved(const Path& from) const {
  if (halfOpen_.size() >= kProvedFactor * halfOpenLimit_) return false;
  const auto host = provedOf_.find(HostOf(from.peer));
  return host == provedOf_.end() || host->second < halfOpenLimit_;
}

void PtcpAcceptor::AskAgain(const Path& from, const InitialHeader& initial, Time now) {
  std::array<std::uint8_t, 16> fresh;
  FillWithRandom(fresh.data(), fresh.size());
  const ConnectionId comeBackWith(fresh);
  const auto token = tokens_.Make(from.peer, initial.destination, comeBackWith, now);
  const auto retry = MakeRetry(initial, comeBackWith, token);
  if (!retry.empty()) port_->Send(from, retry);
}

void PtcpAcceptor::Admit(const Path& from, const InitialHeader& initial,
                         const ConnectionId& original, Bytes datagram, Time now) {
  const CAWAutoPtr<PtcpEngine> engine(new PtcpEngine(GetLoop(), port_, from));
  PtcpEngine* const key = engine.Get();
  const bool proved = !initial.token.empty();
  halfOpen_.emplace(key, Place{engine, proved});
  bool begun = false;
  try {
    if (proved) ++provedOf_[HostOf(from.peer)];
    begun = engine->Accept(initial, original, datagram, now,
                           [this, key](int error) { OnHandshake(key, error); });
  } catch (const std::bad_alloc&) {
  }
  if (begun) return;
  GiveUpPlace(key);
  engine->Abort();
}

// The host may be missing: there was no memory to count it.
void PtcpAcceptor::GiveUpPlace(PtcpEngine* engine) {
  const auto place = halfOpen_.find(engine);
  if (place->second.proved) {
    const auto host = provedOf_.find(HostOf(engine->GetPath().peer));
    if (host != provedOf_.end() && --host->second == 0) provedOf_.erase(host);
  }
  halfOpen_.erase(place);
}

void PtcpAcceptor::OnHandshake(PtcpEngine* engine, int error) {
  const auto alive = Hold();
  if (!alive) return;
  const CAWAutoPtr<PtcpEngine> owner(engine);
  GiveUpPlace(engine);
  if (error != 0) return;
  CAWInetAddr local = local_;
  const in_addr known = engine->GetPath().local;
  if (known.s_addr != 0) local.Set(ntohl(known.s_addr), local_.GetPort());
  try {
    const CAWAutoPtr<IAWPseudoTCPTransport> transport(new PtcpTransport(GetLoop(), engine, local));
    sink_->OnConnectIndication(0, transport.Get(), this);
  } catch (const std::bad_alloc&) {
    engine->Disconnect();
  }
}

}  // namespace ptcp
