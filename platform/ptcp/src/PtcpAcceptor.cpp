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

std::array<std::uint8_t, 32> Secret() {
  std::array<std::uint8_t, 32> secret;
  FillWithRandom(secret.data(), secret.size());
  return secret;
}

}  // namespace

PtcpAcceptor::PtcpAcceptor(keelbase::internal::EventLoop& loop)
    : LoopObject(loop), tokens_(Secret()) {}

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
  for (const auto& [engine, owner] : halfOpen) engine->Abort();
  port_ = nullptr;
}

// Without memory this packet was not seen; the client sends it again.
void PtcpAcceptor::OnStranger(const Path& from, Bytes datagram, Time now) {
  const auto initial = ReadInitial(datagram);
  if (!initial) return;
  try {
    if (initial->token.empty()) {
      if (halfOpen_.size() >= halfOpenLimit_) return AskAgain(from, *initial, now);
      return Admit(from, *initial, initial->destination, datagram, now);
    }
    const auto original = tokens_.Check(initial->token, from.peer, initial->destination, now);
    if (original) Admit(from, *initial, *original, datagram, now);
  } catch (const std::bad_alloc&) {
  }
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
  halfOpen_.emplace(key, engine);
  bool begun = false;
  try {
    begun = engine->Accept(initial, original, datagram, now,
                           [this, key](int error) { OnHandshake(key, error); });
  } catch (const std::bad_alloc&) {
  }
  if (begun) return;
  halfOpen_.erase(key);
  engine->Abort();
}

void PtcpAcceptor::OnHandshake(PtcpEngine* engine, int error) {
  const auto alive = Hold();
  if (!alive) return;
  const CAWAutoPtr<PtcpEngine> owner(engine);
  halfOpen_.erase(engine);
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
