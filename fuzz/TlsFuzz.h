// TlsFuzz.h - two TLS streams, one of them under test, and an attacker on the wire between them.
//
// Whatever the attacker does, the stream under test may deliver only a prefix of what the other one
// sent, must tell its end once and last, and may call an end orderly only when all has come.
#pragma once

#include <fuzzer/FuzzedDataProvider.h>
#include <openssl/rand.h>
#include <openssl/ssl.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>
#include <utility>

#include "MemoryBytes.h"
#include "TlsAuthority.h"
#include "keelbase/internal/EventLoop.h"
#include "sslutils/internal/TlsClient.h"
#include "sslutils/internal/TlsServer.h"
#include "sslutils/internal/TlsStream.h"

namespace zarn::fuzz {

using keelbase::CAWAutoPtr;
using keelbase::CAWMessageBlock;
using sslutils::internal::SslPtr;
using sslutils::internal::TlsStream;
using test::MemoryBytes;
using test::MemoryEnd;

inline void Check(bool condition) {
  if (!condition) std::abort();
}

// --- the same random numbers for each input ---

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
class SameRandom {
 public:
  static void Install() {
    static const RAND_METHOD method = {nullptr, Bytes, nullptr, nullptr, Bytes, Status};
    RAND_set_rand_method(&method);
  }
  static void Restart() { state_ = 1; }

 private:
  static int Bytes(unsigned char* out, int count) {
    for (int i = 0; i < count; ++i) {
      state_ = state_ * 6364136223846793005U + 1442695040888963407U;
      out[i] = static_cast<unsigned char>(state_ >> 33);
    }
    return 1;
  }
  static int Status() { return 1; }
  static inline std::uint64_t state_ = 1;
};
#pragma GCC diagnostic pop

struct Endpoint final : sslutils::internal::ByteSink {
  void OnBytes(CAWMessageBlock& block) override {
    Check(!ended && !disconnected && block.GetChainedLength() != 0);
    received += block.FlattenChained();
  }
  void OnRoom() override { Check(!ended && !disconnected); }
  void OnEnd(long why) override {
    Check(!ended && !disconnected);
    ended = true;
    reason = why;
  }

  void Start() {
    stream->Start(std::chrono::seconds(10), [this](long why) {
      Check(dones++ == 0 && !disconnected);
      established = why;
      if (why == 0) Check(stream->Open(this) == keelbase::AW_OK);
    });
  }
  void Send(std::string text) {
    if (established != 0) return;
    CAWMessageBlock block(text.data(), text.size(), CAWMessageBlock::borrow);
    stream->Send(block);
    sent += text.substr(0, text.size() - block.GetLength());
  }
  void Disconnect() {
    disconnected = true;
    stream->Disconnect();
  }

  MemoryEnd end;
  CAWAutoPtr<TlsStream> stream;
  std::string received;
  std::string sent;
  long established = -1;
  int dones = 0;
  bool ended = false;
  bool disconnected = false;
  long reason = -1;
};

class Scene {
 public:
  Scene(SslPtr tested, SslPtr other) : loop_("fuzz") {
    loop_.BindToCurrentThread();
    tested_.stream =
        new TlsStream(loop_, std::make_unique<MemoryBytes>(tested_.end), std::move(tested));
    other_.stream =
        new TlsStream(loop_, std::make_unique<MemoryBytes>(other_.end), std::move(other));
    tested_.Start();
    other_.Start();
    loop_.RunReady();
  }
  ~Scene() {
    tested_.stream->Disconnect();
    other_.stream->Disconnect();
    loop_.FinishLingers();
  }
  Scene(const Scene&) = delete;
  Scene& operator=(const Scene&) = delete;

  void Play(FuzzedDataProvider& input) {
    if (input.ConsumeBool()) Settle(input);
    for (int actions = 0; actions < 60 && input.remaining_bytes() > 0; ++actions) {
      Act(input);
      loop_.RunReady();
      Judge();
    }
    Settle(input);
    Judge();
  }

 private:
  // Lets everything arrive.
  void Settle(FuzzedDataProvider& input) {
    for (int rounds = 0; rounds < 10; ++rounds) {
      Move(other_.end, tested_.end, input, kAll);
      Move(tested_.end, other_.end, input, kAll);
      tested_.end.MakeRoom(kAll);
      other_.end.MakeRoom(kAll);
      loop_.RunReady();
    }
  }

  void Act(FuzzedDataProvider& input) {
    switch (input.ConsumeIntegralInRange(0, 11)) {
      case 0:
        return Move(other_.end, tested_.end, input, kAll);
      case 1:
        return Move(other_.end, tested_.end, input, input.ConsumeIntegralInRange(1, 2000));
      case 2:
      case 3:
        return Move(tested_.end, other_.end, input, kAll);
      case 4:
        return tested_.end.Arrive(input.ConsumeRandomLengthString(300));
      case 5:
        return Tamper(input);
      case 6:
        return other_.disconnected ? void() : other_.Send(Text(input));
      case 7:
        return tested_.disconnected ? void() : tested_.Send(Text(input));
      case 8:
        return other_.Disconnect();
      case 9:
        return input.ConsumeIntegralInRange(0, 3) == 0 ? tested_.Disconnect() : void();
      case 10:
        return tested_.end.MakeRoom(input.ConsumeIntegralInRange<std::size_t>(0, 40000));
      default:
        return Option(input);
    }
  }

  static std::string Text(FuzzedDataProvider& input) {
    const auto length = input.ConsumeIntegralInRange<std::size_t>(0, 40000);
    return std::string(length, input.ConsumeIntegral<char>());
  }

  void Tamper(FuzzedDataProvider& input) {
    std::string& wire = other_.end.sent;
    if (wire.empty()) return tested_.end.End(input.ConsumeBool() ? 0 : 104);
    const auto at = input.ConsumeIntegralInRange<std::size_t>(0, wire.size() - 1);
    switch (input.ConsumeIntegralInRange(0, 2)) {
      case 0:
        wire[at] = static_cast<char>(wire[at] ^ input.ConsumeIntegralInRange(1, 255));
        return;
      case 1:
        wire.erase(at, input.ConsumeIntegralInRange<std::size_t>(1, 100));
        return;
      default:
        wire.insert(at, input.ConsumeRandomLengthString(100));
    }
  }

  void Option(FuzzedDataProvider& input) {
    if (tested_.disconnected || tested_.established != 0) return;
    bool stop = input.ConsumeBool();
    std::uint32_t size = input.ConsumeIntegralInRange(1U, 65535U);
    if (input.ConsumeBool()) {
      tested_.stream->SetOption(keelbase::AW_OPT_STOP_READING, &stop);
    } else {
      tested_.stream->SetOption(keelbase::AW_OPT_READ_SIZE, &size);
    }
  }

  static void Move(MemoryEnd& from, MemoryEnd& to, FuzzedDataProvider& input, std::size_t most) {
    std::string bytes = from.sent.substr(0, most);
    from.sent.erase(0, bytes.size());
    const std::size_t piece = input.PickValueInArray<std::size_t>({65535, 16389, 1000, 100});
    for (std::size_t at = 0; at < bytes.size(); at += piece) to.Arrive(bytes.substr(at, piece));
    from.MakeRoom(from.room);
  }

  void Judge() const {
    Check(other_.sent.compare(0, tested_.received.size(), tested_.received) == 0);
    if (tested_.ended && tested_.reason == 0)
      Check(other_.disconnected && tested_.received.size() == other_.sent.size());
  }

  static constexpr std::size_t kAll = static_cast<std::size_t>(-1);

  keelbase::internal::EventLoop loop_;
  Endpoint tested_;
  Endpoint other_;
};

// --- both sides' settings, made once ---

struct Settings {
  Settings() {
    SameRandom::Install();
    const test::TlsAuthority authority;
    const auto own = authority.Issue();
    const auto client = authority.IssueForClient();
    Check(server.SetPrivateKey(own.key) == keelbase::AW_OK);
    Check(server.SetCertificate(own.certificate) == keelbase::AW_OK);
    Check(server.SetClientAuthorities(authority.GetPem(), false) == keelbase::AW_OK);
    Check(server.Prepare() == keelbase::AW_OK);
    Check(sslutils::internal::SetTrusted(authority.GetPem()) == keelbase::AW_OK);
    withoutKey.serverName = withKey.serverName = "localhost";
    Check(withKey.identity.SetPrivateKey(client.key) == keelbase::AW_OK);
    Check(withKey.identity.SetCertificate(client.certificate) == keelbase::AW_OK);
  }
  SslPtr MakeClient(FuzzedDataProvider& input) const {
    SslPtr ssl;
    const auto& settings = input.ConsumeBool() ? withKey : withoutKey;
    Check(sslutils::internal::MakeClientSsl(settings, ssl) == keelbase::AW_OK);
    SSL_set_session(ssl.get(), nullptr);  // of an earlier input
    if (input.ConsumeBool()) SSL_set_max_proto_version(ssl.get(), TLS1_2_VERSION);
    return ssl;
  }

  sslutils::internal::TlsServer server;
  sslutils::internal::TlsClientSettings withKey;
  sslutils::internal::TlsClientSettings withoutKey;
};

inline int RunOne(const std::uint8_t* data, std::size_t size, bool testServer) {
  static const Settings settings;
  SameRandom::Restart();
  FuzzedDataProvider input(data, size);
  SslPtr client = settings.MakeClient(input);
  SslPtr server = settings.server.MakeSsl();
  Scene scene(testServer ? std::move(server) : std::move(client),
              testServer ? std::move(client) : std::move(server));
  scene.Play(input);
  return 0;
}

}  // namespace zarn::fuzz
