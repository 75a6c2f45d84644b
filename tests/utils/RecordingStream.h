// RecordingStream.h - a stream for tests: frames end with ';', and everything that happens is
// noted.
#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "FakeIpc.h"
#include "zarn/utils/CZARNIPCStreamBase.h"

namespace zarn::test {

class RecordingStream : public utils::CZARNIPCStreamBase {
 public:
  explicit RecordingStream(CallLog* log = nullptr) : log_(log) {}
  ~RecordingStream() override {
    if (destroyed != nullptr) *destroyed = true;
  }

  std::vector<std::string> views;      // what each HandleMessage was given
  std::vector<const char*> addresses;  // and where it stood
  std::vector<std::string> frames;
  std::vector<long> peerDisconnects;
  std::vector<long> connecteds;
  bool* destroyed = nullptr;

  // Called in place of, or from inside, the upcalls. A hook runs from a copy: it may delete the
  // stream.
  std::function<std::size_t(const char*, std::size_t)> onMessage;
  std::function<void(long)> onPeerDisconnect;
  std::function<void(long)> onConnected;

  std::size_t HandleMessage(const char* data, std::size_t len) override {
    views.emplace_back(data, len);
    addresses.push_back(data);
    if (const auto hook = onMessage) return hook(data, len);
    return TakeFrame(data, len);
  }

  void OnPeerDisconnect(long reason) override {
    Note("OnPeerDisconnect(" + std::to_string(reason) + ")");
    peerDisconnects.push_back(reason);
    if (const auto hook = onPeerDisconnect) hook(reason);
  }

  int OnConnected(long reason) override {
    Note("OnConnected(" + std::to_string(reason) + ")");
    connecteds.push_back(reason);
    if (const auto hook = onConnected) hook(reason);
    return 1;
  }

  void OnRcvBufferOverFlow(std::uint32_t) override { Note("OnRcvBufferOverFlow"); }

  std::size_t TakeFrame(const char* data, std::size_t len) {
    const std::size_t end = std::string_view(data, len).find(';');
    if (end == std::string_view::npos) return 0;
    frames.emplace_back(data, end);
    return end + 1;
  }

  using CZARNIPCStreamBase::SetReceiveLimit;
  using CZARNIPCStreamBase::StopReading;

 private:
  void Note(const std::string& call) {
    if (log_ != nullptr) log_->push_back(call);
  }
  CallLog* log_;
};

// A stream and its world. Attach() gives it a connection the short way.
struct StreamFixture {
  using Transport = keelbase::CAWAutoPtr<FakeTransport>;
  using Handle = keelbase::CAWAutoPtr<fipc::IAWIPCTransport>;

  CallLog log;
  FakeManager manager{&log};
  std::unique_ptr<RecordingStream> stream = std::make_unique<RecordingStream>(&log);

  Transport NewTransport() { return Transport(new FakeTransport(&log)); }

  Transport Attach() {
    Transport transport = NewTransport();
    Handle handle(transport.Get());
    stream->SetTransportHandle(handle);
    return transport;
  }

  // Connect and its good end: the stream holds a connector and a transport.
  Transport ConnectFully() {
    stream->Connect(keelbase::CAWIPCAddr("/peer"), nullptr);
    Transport transport = NewTransport();
    manager.Last().Complete(0, transport.Get());
    return transport;
  }

  keelbase::AWResult Send(const std::string& bytes) {
    return stream->SendMsg(bytes.data(), bytes.size());
  }
};

}  // namespace zarn::test
