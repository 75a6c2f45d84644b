// TlsStreamPair.h - two TLS engines on byte transports in memory that a test moves and breaks.
#pragma once

#include <gtest/gtest.h>
#include <openssl/ssl.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <memory>
#include <new>
#include <string>
#include <utility>

#include "LoopThread.h"
#include "MemoryBytes.h"
#include "TlsAuthority.h"
#include "sslutils/internal/TlsClient.h"
#include "sslutils/internal/TlsServer.h"
#include "sslutils/internal/TlsStream.h"

namespace sslutils::internal {

using keelbase::AW_ERROR_FAILURE;
using keelbase::AW_ERROR_NOT_INITIALIZED;
using keelbase::AW_ERROR_PARTIAL_DATA;
using keelbase::AW_OK;
using keelbase::AWResult;
using keelbase::CAWAutoPtr;
using keelbase::CAWMessageBlock;
using keelbase::internal::EventLoop;
using zarn::test::MemoryBytes;
using zarn::test::MemoryEnd;
using zarn::test::TlsAuthority;
using zarn::test::WithLoop;

constexpr std::chrono::seconds kLimit{10};

inline const TlsAuthority& Authority() {
  static const TlsAuthority authority;
  return authority;
}

struct RecordingByteSink final : ByteSink {
  void OnBytes(CAWMessageBlock& block) override {
    longest = std::max(longest, block.GetChainedLength());
    received += block.FlattenChained();
    if (failMemory) throw std::bad_alloc();
    if (onBytes) onBytes();
  }
  void OnRoom() override {
    ++rooms;
    if (onRoom) onRoom();
  }
  void OnEnd(long why) override {
    ++ends;
    reason = why;
    if (onEnd) onEnd();
  }
  std::string received;
  std::size_t longest = 0;
  int rooms = 0;
  int ends = 0;
  long reason = -1;
  bool failMemory = false;
  std::function<void()> onBytes;
  std::function<void()> onRoom;
  std::function<void()> onEnd;
};

// One side, its end of the wire and what it was told.
struct TlsSide {
  MemoryEnd end;
  RecordingByteSink sink;
  CAWAutoPtr<TlsStream> stream;
  long established = -1;
  int dones = 0;
  int closes = 0;
  std::function<void()> onDone;
};

struct TlsPair {
  explicit TlsPair(EventLoop& l, int version = TLS1_3_VERSION, const char* ciphers = nullptr)
      : loop(l) {
    const auto server = Authority().Issue();
    EXPECT_EQ(context.SetPrivateKey(server.key), AW_OK);
    EXPECT_EQ(context.SetCertificate(server.certificate), AW_OK);
    EXPECT_EQ(context.Prepare(), AW_OK);
    EXPECT_EQ(SetTrusted(Authority().GetPem()), AW_OK);  // also forgets earlier sessions
    TlsClientSettings settings;
    settings.serverName = "localhost";
    SslPtr ssl;
    EXPECT_EQ(MakeClientSsl(settings, ssl), AW_OK);
    SSL_set_max_proto_version(ssl.get(), version);
    if (ciphers != nullptr) SSL_set_cipher_list(ssl.get(), ciphers);
    clientSsl = ssl.get();
    Make(client, std::move(ssl));
    ssl = context.MakeSsl();
    serverSsl = ssl.get();
    Make(server_, std::move(ssl));
  }
  ~TlsPair() {
    for (TlsSide* side : {&client, &server_})
      if (side->stream) side->stream->Disconnect();
    Drop(client);
    Drop(server_);
    Move();
    loop.FinishLingers();  // of those whose peer has not ended in order
  }
  static void Drop(TlsSide& side) { side.stream = nullptr; }

  void Make(TlsSide& side, SslPtr ssl) {
    side.stream = new TlsStream(loop, std::make_unique<MemoryBytes>(side.end), std::move(ssl));
  }
  void Start(TlsSide& side) {
    const auto done = [&side](long reason) {
      side.established = reason;
      ++side.dones;
      if (side.onDone) side.onDone();
    };
    side.stream->Start(kLimit, done, [&side] { ++side.closes; });
  }
  void StartBoth() {
    Start(client);
    Start(server_);
    Move();
  }
  void Open() {
    StartBoth();
    ASSERT_EQ(client.established, 0);
    ASSERT_EQ(server_.established, 0);
    EXPECT_EQ(client.stream->Open(&client.sink), AW_OK);
    EXPECT_EQ(server_.stream->Open(&server_.sink), AW_OK);
    Move();
  }
  // Turns the loop and moves bytes until nothing moves any more.
  void Move() {
    for (bool any = true; any;) {
      any = loop.RunReady();
      any |= MoveOnce(client.end, server_.end);
      any |= MoveOnce(server_.end, client.end);
    }
  }
  static bool MoveOnce(MemoryEnd& from, MemoryEnd& to) {
    if (from.sent.empty() || to.sink == nullptr || to.readingStopped) return false;
    const std::string bytes = std::exchange(from.sent, {});
    for (std::size_t at = 0; at < bytes.size(); at += 65535) to.Arrive(bytes.substr(at, 65535));
    from.MakeRoom(from.room);
    return true;
  }
  static AWResult Send(TlsSide& side, const std::string& text) {
    CAWMessageBlock block(text.data(), text.size(), CAWMessageBlock::borrow);
    return side.stream->Send(block);
  }

  EventLoop& loop;
  TlsServer context;
  SSL* clientSsl = nullptr;
  SSL* serverSsl = nullptr;
  TlsSide client;
  TlsSide server_;
};

inline int MakeTicketLong(SSL* ssl, void*) {
  const std::string data(600, 'x');
  return SSL_SESSION_set1_ticket_appdata(SSL_get_session(ssl), data.data(), data.size());
}

inline std::string TakeRecord(std::string& bytes) {
  const auto byte = [&](std::size_t at) { return static_cast<unsigned char>(bytes.at(at)); };
  const std::size_t size = 5 + byte(3) * 256U + byte(4);
  const std::string record = bytes.substr(0, size);
  bytes.erase(0, size);
  return record;
}

// The client has the first record of a ticket that fills several; the others and what the server
// has sent behind them are in `rest`. Until all of the ticket has come OpenSSL writes nothing.
struct TicketPair : TlsPair {
  explicit TicketPair(EventLoop& l) : TlsPair(l) {
    Open();
    SSL_CTX_set_session_ticket_cb(SSL_get_SSL_CTX(serverSsl), MakeTicketLong, nullptr, nullptr);
    EXPECT_EQ(SSL_set_max_send_fragment(serverSsl, 512), 1);
    EXPECT_EQ(SSL_new_session_ticket(serverSsl), 1);
    EXPECT_EQ(Send(server_, "behind it"), AW_OK);
    loop.RunReady();
    rest = std::exchange(server_.end.sent, {});
    client.end.Arrive(TakeRecord(rest));
    EXPECT_GT(rest.size(), 100U);
  }
  void ArriveRest() {
    while (!rest.empty()) client.end.Arrive(TakeRecord(rest));
  }
  std::string rest;
};

// The client has asked for new keys until the server, whose answers find no room, reads no further.
struct UnreadAnswersPair : TlsPair {
  explicit UnreadAnswersPair(EventLoop& l) : TlsPair(l) {
    Open();
    server_.end.room = 0;
    EXPECT_EQ(Send(client, "first"), AW_OK);
    Move();
    for (int asked = 0; asked < 10000 && !server_.end.readingStopped; ++asked) AskForNewKeys();
    EXPECT_TRUE(server_.end.readingStopped);
    EXPECT_EQ(Send(server_, "answer"), AW_OK);
    Move();
  }
  void AskForNewKeys() {
    EXPECT_EQ(SSL_key_update(clientSsl, SSL_KEY_UPDATE_REQUESTED), 1);
    EXPECT_EQ(SSL_do_handshake(clientSsl), 1);
    MoveOnce(client.end, server_.end);
  }
  // Goes on its way though the server does not read.
  void Arrive(const std::string& text) {
    EXPECT_EQ(Send(client, text), AW_OK);
    loop.RunReady();
    server_.end.Arrive(std::exchange(client.end.sent, {}));
  }
};

inline std::string Pattern(std::size_t size) {
  std::string text(size, '\0');
  for (std::size_t i = 0; i < size; ++i) text[i] = static_cast<char>((i >> 8) ^ (i * 7));
  return text;
}

}  // namespace sslutils::internal
