// ShmIPCAcceptor.cpp - see ShmIPCAcceptor.h.
#include "ShmIPCAcceptor.h"

#include <cerrno>
#include <chrono>
#include <new>
#include <utility>

#include "ShmEndpoint.h"
#include "ShmIPCTransport.h"
#include "keelbase/CAWFile.h"
#include "keelbase/internal/PassedDescriptors.h"
#include "keelbase/internal/TellOwner.h"
#include "keelbase/internal/TraceError.h"

namespace fshmipc {

using keelbase::AW_ERROR_FAILURE;
using keelbase::AW_OK;
using keelbase::AWResult;
using keelbase::CAWAutoPtr;
using keelbase::CAWPeerCredentials;

namespace {

// A connector greets as soon as it is welcomed.
constexpr std::chrono::seconds kGreetingTime{2};

}  // namespace

class ShmIPCAcceptor::Guest final : private keelbase::internal::Watcher {
 public:
  Guest(ShmIPCAcceptor& host, FileDescriptor socket, const CAWPeerCredentials& credentials)
      : host_(host),
        socket_(std::move(socket)),
        credentials_(credentials),
        timeLimit_(host.GetLoop()) {}
  ~Guest() {
    if (watched_) host_.GetLoop().Unwatch(socket_.Get(), *this);
  }

  // An errno value: it cannot be waited for.
  int Wait() {
    timeLimit_.Start(kGreetingTime, 1, [this] { host_.Dismiss(*this); });
    const int error = host_.GetLoop().Watch(socket_.Get(), EPOLLIN, *this);
    watched_ = error == 0;
    return error;
  }

  int GetSocket() const { return socket_.Get(); }
  const CAWPeerCredentials& GetCredentials() const { return credentials_; }

  FileDescriptor TakeSocket() {
    if (std::exchange(watched_, false)) host_.GetLoop().Unwatch(socket_.Get(), *this);
    return std::move(socket_);
  }

 private:
  void OnReady(std::uint32_t /*events*/) override {
    Greeting greeting;
    FileDescriptor memory;
    const int error = ReceiveGreeting(socket_.Get(), greeting, memory);
    if (error == EAGAIN) return;
    keelbase::internal::RefuseDescriptors(socket_.Get());
    host_.OnGreeted(*this, error, greeting, memory);
  }

  ShmIPCAcceptor& host_;
  FileDescriptor socket_;
  const CAWPeerCredentials credentials_;
  bool watched_ = false;
  keelbase::internal::Timer timeLimit_;
};

ShmIPCAcceptor::ShmIPCAcceptor(keelbase::internal::EventLoop& loop, const SystemPath& systemPath)
    : LoopObject(loop),
      systemPath_(systemPath),
      listener_(
          loop,
          [this](FileDescriptor socket, const CAWPeerCredentials& credentials) {
            OnAccepted(std::move(socket), credentials);
          },
          [this](int error) { OnFailed(error); }) {
  listener_.TakeDescriptors();
}

ShmIPCAcceptor::~ShmIPCAcceptor() = default;

AWResult ShmIPCAcceptor::SetOption(int code, void* value) {
  if (code != AW_OPT_ALLOW_ANY_USER || value == nullptr) return AW_ERROR_FAILURE;
  listener_.AllowAnyUser(*static_cast<const bool*>(value));
  return AW_OK;
}

AWResult ShmIPCAcceptor::StartListen(IAWShmIPCAcceptorConnectorSink* sink,
                                     const CAWShmIPCAddr& addr) try {
  if (sink == nullptr) return AW_ERROR_FAILURE;
  const std::string path = EndpointFileOf(systemPath_.Get(), addr);
  if (path.empty()) return AW_ERROR_FAILURE;
  keelbase::CAWFile::mkdir(path);  // what it could not make, listening cannot find
  AWResult result = AW_ERROR_FAILURE;
  GetLoop().Call([&] {
    if (sink_ != nullptr) return;
    address_ = addr;
    result = static_cast<AWResult>(listener_.Start(path));
    if (result == AW_OK) sink_ = sink;
  });
  return result;
} catch (const std::bad_alloc&) {
  return AW_ERROR_FAILURE;
}

AWResult ShmIPCAcceptor::StopListen() {
  GetLoop().Call([this] { Stop(); });
  return AW_OK;
}

void ShmIPCAcceptor::Stop() {
  listener_.Stop();
  guests_.clear();
  sink_ = nullptr;
}

void ShmIPCAcceptor::OnFailed(int error) {
  const auto alive = Hold();
  if (!alive) return;
  keelbase::internal::TellOwner([this, error, sink = std::exchange(sink_, nullptr)] {
    sink->OnShmIPCConnectIndication(error, nullptr, this);
  });
}

// One that cannot be welcomed at once has gone, or there is no memory: this one connection is
// closed; the next may find some again.
void ShmIPCAcceptor::OnAccepted(FileDescriptor socket, const CAWPeerCredentials& credentials) {
  const auto alive = Hold();
  if (!alive || SendWelcome(socket.Get()) != 0) return;
  try {
    Guest& guest = guests_.emplace_back(*this, std::move(socket), credentials);
    if (const int error = guest.Wait(); error != 0) {
      keelbase::internal::TraceError("a client over shared memory is refused", error);
      guests_.pop_back();
    }
  } catch (const std::bad_alloc&) {
  }
}

void ShmIPCAcceptor::Dismiss(const Guest& guest) {
  guests_.remove_if([&guest](const Guest& one) { return &one == &guest; });
}

void ShmIPCAcceptor::OnGreeted(Guest& guest, int error, const Greeting& greeting,
                               const FileDescriptor& memory) {
  const auto alive = Hold();
  if (!alive) return;
  ShmSegment segment;
  if (error == 0) error = segment.Attach(memory, greeting.ringSize);
  if (SendAnswer(guest.GetSocket(), error) != 0) error = ECONNRESET;
  const CAWPeerCredentials credentials = guest.GetCredentials();
  FileDescriptor socket = guest.TakeSocket();
  Dismiss(guest);
  if (error != 0) return;
  try {
    const CAWAutoPtr<ShmConnection> connection(new ShmConnection(
        GetLoop(), std::move(socket), std::move(segment), ShmConnection::Side::acceptor));
    const CAWAutoPtr<IAWShmIPCTransport> transport(
        new ShmIPCTransport(GetLoop(), connection.Get(), address_,
                            CAWShmIPCAddr(greeting.localFirst, greeting.localSecond), credentials));
    sink_->OnShmIPCConnectIndication(0, transport.Get(), this);
  } catch (const std::bad_alloc&) {
    // As above.
  }
}

}  // namespace fshmipc
