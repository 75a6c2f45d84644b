// RecordingStream.h - streams for tests: frames end with ';', and everything that happens is noted.
// A test whose rule holds for every stream class runs over all `StreamWorlds`.
#pragma once

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "FakeIpc.h"
#include "FakeShmIpc.h"
#include "FakeTcp.h"
#include "FakeTls.h"
#include "zarn/utils/CSSLPTCPSessionBase.h"
#include "zarn/utils/CZARNIPCStreamBase.h"
#include "zarn/utils/CZARNSSLTCPSessionBase.h"
#include "zarn/utils/CZARNShmIPCStreamBase.h"
#include "zarn/utils/CZARNTCPSessionBase.h"

namespace zarn::test {

// Adds the noting to a stream class.
template <class Stream>
class StreamRecorder : public Stream {
 public:
  explicit StreamRecorder(CallLog* log = nullptr) : log_(log) {}
  ~StreamRecorder() override {
    if (destroyed != nullptr) *destroyed = true;
  }

  std::vector<std::string> views;      // what each HandleMessage was given
  std::vector<const char*> addresses;  // and where it stood
  std::vector<std::string> frames;
  std::vector<std::string> upcalls;  // all but HandleMessage, with the reason
  bool* destroyed = nullptr;

  // Called in place of, or from inside, the upcalls. A hook runs from a copy: it may delete the
  // stream.
  std::function<std::size_t(const char*, std::size_t)> onMessage;
  std::function<void()> onConnected;
  std::function<void()> onEnd;  // in whatever upcall tells that it is over

  std::size_t HandleMessage(const char* data, std::size_t len) override {
    views.emplace_back(data, len);
    addresses.push_back(data);
    if (const auto hook = onMessage) return hook(data, len);
    return TakeFrame(data, len);
  }

  void OnPeerDisconnect(long reason) override {
    Note("OnPeerDisconnect(" + std::to_string(reason) + ")");
    if (const auto hook = onEnd) hook();
  }

  int OnConnected(long reason) override {
    Note("OnConnected(" + std::to_string(reason) + ")");
    if (const auto hook = onConnected) hook();
    return 1;
  }

  void OnRcvBufferOverFlow(std::uint32_t) override { Note("OnRcvBufferOverFlow"); }

  std::size_t TakeFrame(const char* data, std::size_t len) {
    const std::size_t end = std::string_view(data, len).find(';');
    if (end == std::string_view::npos) return 0;
    frames.emplace_back(data, end);
    return end + 1;
  }

  using Stream::SetReceiveLimit;
  using Stream::StopAtMalformedFrame;
  using Stream::StopReading;

 protected:
  void Note(const std::string& upcall) {
    upcalls.push_back(upcall);
    if (log_ != nullptr) log_->push_back(upcall);
  }

 private:
  CallLog* log_;
};

using RecordingStream = StreamRecorder<utils::CZARNIPCStreamBase>;

class RecordingShmStream : public StreamRecorder<utils::CZARNShmIPCStreamBase> {
 public:
  using StreamRecorder::StreamRecorder;

  void OnClose() override {
    Note("OnClose");
    if (const auto hook = onEnd) hook();
  }
  void OnConnectFailure(long reason) override {
    Note("OnConnectFailure(" + std::to_string(reason) + ")");
    if (const auto hook = onEnd) hook();
  }
};

// A session with the accessors that the other streams have.
template <class Session>
class SessionRecorder : public StreamRecorder<Session> {
 public:
  using StreamRecorder<Session>::StreamRecorder;

  bool IsClosed() { return this->IsClose(); }
  const keelbase::CAWInetAddr& GetPeerAddr() const { return *Session::GetPeerAddr(); }
  const keelbase::CAWInetAddr& GetLocalAddr() const { return *Session::GetLocalAddr(); }
};

using RecordingTcpSession = SessionRecorder<utils::CZARNTCPSessionBase>;
using RecordingTlsSession = SessionRecorder<utils::CZARNSSLTCPSessionBase>;

class RecordingSslPtcpSession : public SessionRecorder<utils::CSSLPTCPSessionBase> {
 public:
  using SessionRecorder::SessionRecorder;

  // As the other streams send.
  using SessionRecorder::SendMessage;
  keelbase::AWResult SendMessage(keelbase::CAWMessageBlock& data) override { return SendMsg(data); }
  virtual keelbase::AWResult SendMsg(keelbase::CAWMessageBlock& data) {
    return SessionRecorder::SendMessage(data);
  }
  keelbase::AWResult SendMsg(const char* data, std::size_t length) {
    return SendMessage(data, length);
  }
};

// --- a stream class, its fakes, and where its rules differ from the others' ---

// What holds for most.
struct OverAny {
  static constexpr bool kAdvancesReceived = true;
  static constexpr bool kDestructorCancels = true;
  static constexpr bool kCloseCancels = true;
  static constexpr keelbase::AWResult kNotConnected = keelbase::AW_ERROR_NOT_INITIALIZED;
  static constexpr const char* kClosedByHandler = "OnPeerDisconnect(0)";
  static std::string FailedConnect(long reason) {
    return "OnPeerDisconnect(" + std::to_string(reason) + ")";
  }
};

struct OverIpc : OverAny {
  static constexpr const char* kName = "CZARNIPCStreamBase";
  using Platform = LocalIpc;
  using Stream = RecordingStream;
  using Transport = FakeTransport;
  using Manager = FakeManager;

  static constexpr const char* kDirectTrace = "CAWTCPSessionBase";
  static keelbase::CAWIPCAddr Endpoint(std::uint16_t number) {
    return keelbase::CAWIPCAddr("/ipc/" + std::to_string(number));
  }
  static void ExpectConnectParameter(const Manager::Connector& connector) {
    EXPECT_EQ(connector.parameter, 0U);
  }
};

struct OverShm : OverAny {
  static constexpr const char* kName = "CZARNShmIPCStreamBase";
  using Platform = ShmIpc;
  using Stream = RecordingShmStream;
  using Transport = FakeShmTransport;
  using Manager = FakeShmManager;

  static constexpr keelbase::AWResult kNotConnected = keelbase::AW_ERROR_FAILURE;
  static constexpr const char* kClosedByHandler = "OnClose";
  static std::string FailedConnect(long reason) {
    return "OnConnectFailure(" + std::to_string(reason) + ")";
  }
  static fshmipc::CAWShmIPCAddr Endpoint(std::uint16_t number) { return {number, 7}; }
  static void ExpectConnectParameter(const Manager::Connector& connector) {
    EXPECT_EQ(connector.parameter, 0U);
  }
};

// The sessions, whose addresses are those of the internet.
struct OverSession : OverAny {
  static constexpr bool kAdvancesReceived = false;
  static keelbase::CAWInetAddr Endpoint(std::uint16_t number) { return {0x7F000001U, number}; }
};

struct OverTcp : OverSession {
  static constexpr const char* kName = "CZARNTCPSessionBase";
  using Platform = Tcp;
  using Stream = RecordingTcpSession;
  using Transport = FakeTcpTransport;
  using Manager = FakeTcpManager;

  static constexpr const char* kDirectTrace = "CZARNTCPSessionBase";
  static constexpr bool kDestructorCancels = false;
  static void Receive(Stream& stream, keelbase::CAWMessageBlock& data,
                      Platform::Transport* transport) {
    stream.OnReceive(data, transport, nullptr);
  }
  static void FailConnect(Stream& stream, long reason) {
    stream.OnConnectIndication(reason, nullptr, nullptr);
  }
  static void ExpectConnectParameter(const Manager::Connector& connector) {
    ASSERT_TRUE(connector.timeout.has_value());
    EXPECT_EQ(*connector.timeout, keelbase::CAWTimeValue(3, 0));
  }
};

struct OverTls : OverSession {
  static constexpr const char* kName = "CZARNSSLTCPSessionBase";
  using Platform = Tls;
  using Stream = RecordingTlsSession;
  using Transport = FakeTlsTransport;
  using Manager = FakeTlsManager;

  static constexpr const char* kDirectTrace = "CZARNSSLTCPSessionBase";
  static constexpr bool kDestructorCancels = false;
  static void Receive(Stream& stream, keelbase::CAWMessageBlock& data,
                      Platform::Transport* transport) {
    stream.OnSSLDataReceive(data, transport);
  }
  static void FailConnect(Stream& stream, long reason) { stream.OnSSLConnected(reason, nullptr); }
  static void ExpectConnectParameter(const Manager::Connector& connector) {
    EXPECT_EQ(connector.verify, 1);
    EXPECT_FALSE(connector.hadServerName);
  }
};

struct OverSslPtcp : OverSession {
  static constexpr const char* kName = "CSSLPTCPSessionBase";
  using Platform = Tls;
  using Stream = RecordingSslPtcpSession;
  using Transport = FakeTlsTransport;
  using Manager = FakeSslPtcpManager;

  static constexpr const char* kDirectTrace = "CSSLPTCPSessionBase";
  static constexpr bool kCloseCancels = false;
  static void Receive(Stream& stream, keelbase::CAWMessageBlock& data,
                      Platform::Transport* transport) {
    stream.OnSSLDataReceive(data, transport);
  }
  static void FailConnect(Stream& stream, long reason) { stream.OnSSLConnected(reason, nullptr); }
  static void ExpectConnectParameter(const Manager::Connector& connector) {
    EXPECT_FALSE(connector.hadServerName);
  }
};

using StreamWorlds = ::testing::Types<OverIpc, OverShm, OverTcp, OverTls, OverSslPtcp>;

// The streams that advance the caller's block, and take blocks directly.
using AdvancingWorlds = ::testing::Types<OverIpc, OverTcp, OverTls, OverSslPtcp>;

// Typed tests are called after the class that they run over.
struct WorldNames {
  template <class World>
  static std::string GetName(int) {
    return World::kName;
  }
};

// A stream and its world. Attach() gives it a connection the short way.
template <class World>
struct StreamFixture {
  using Stream = typename World::Stream;
  using Transport = keelbase::CAWAutoPtr<typename World::Transport>;
  using Handle = keelbase::CAWAutoPtr<typename World::Platform::Transport>;

  CallLog log;
  typename World::Manager manager{&log};
  bool destroyed = false;  // the stream
  std::unique_ptr<Stream> stream = std::make_unique<Stream>(&log);

  StreamFixture() { stream->destroyed = &destroyed; }

  Transport NewTransport() { return Transport(new typename World::Transport(&log)); }

  Transport Attach() {
    Transport transport = NewTransport();
    Handle handle(transport.Get());
    stream->SetTransportHandle(handle);
    return transport;
  }

  keelbase::AWResult Connect(std::uint16_t number = 1) {
    return stream->Connect(World::Endpoint(number), nullptr);
  }

  // Connect and its good end: the stream holds a connector and a transport.
  Transport ConnectFully() {
    Connect();
    Transport transport = NewTransport();
    manager.Last().Complete(0, transport.Get());
    return transport;
  }

  keelbase::AWResult Send(const std::string& bytes) {
    return stream->SendMsg(bytes.data(), bytes.size());
  }

  // Runs `action` while the first message is handled; the messages after it are taken as usual.
  void DuringFirstMessage(std::function<void()> action) {
    stream->onMessage = [this, action = std::move(action)](const char* data, std::size_t len) {
      const std::size_t taken = stream->TakeFrame(data, len);
      if (stream->frames.size() == 1) action();
      return taken;
    };
  }
  void DeleteAtTheEnd() {
    stream->onEnd = [this] { stream.reset(); };
  }
};

}  // namespace zarn::test
