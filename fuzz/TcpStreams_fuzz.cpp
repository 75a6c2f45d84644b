// TcpStreams_fuzz.cpp - bytes in pieces of any size through the session and the transport stream
// over TCP, with partial sends and ends of connections between: each must offer its handler what a
// plain model of its rules offers, and send what it accepted in order.
#include <fuzzer/FuzzedDataProvider.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "FakeTcp.h"
#include "keelbase/CAWTrace.h"
#include "zarn/utils/CZARNTCPSessionBase.h"
#include "zarn/utils/CZARNTCPTransport.h"

namespace {

using keelbase::CAWMessageBlock;
using zarn::test::FakeTcpTransport;

constexpr std::size_t kMaxBytes = 30000;  // an answer of 16 bits can still be too long

void Check(bool condition) {
  if (!condition) std::abort();
}

// --- the frames: their first byte is their length ---

constexpr char kClaimTooMuch = 0;
constexpr char kCloseStream = 1;
constexpr char kSendBack = 2;

std::size_t AnswerTo(std::string_view bytes) {
  if (bytes.empty()) return 0;
  if (bytes[0] == kClaimTooMuch) return bytes.size() + 1;
  const std::size_t length = static_cast<unsigned char>(bytes[0]);
  return length <= bytes.size() ? length : 0;
}

using Offers = std::vector<std::string>;  // what the handler was given, call by call

// --- the rules ---

struct Model {
  Offers offers;
  std::string held;
  bool closed = false;

  std::size_t Offer(const std::string& bytes) {
    offers.push_back(bytes);
    const std::size_t answer = AnswerTo(bytes);
    closed = closed || (answer != 0 && bytes[0] == kCloseStream);
    return answer;
  }
};

struct SessionModel : Model {
  void Receive(const std::string& piece) {
    held += piece;
    while (!held.empty()) {
      const std::size_t answer = Offer(held);
      if (answer == 0 || answer > held.size()) break;
      held.erase(0, answer);
      if (closed) break;
    }
    if (closed) held.clear();
  }
};

struct TransportModel : Model {
  void Receive(std::string piece) {
    if (!held.empty()) {
      held += piece;
      for (std::size_t answer = 1; answer != 0 && !held.empty() && !closed;) {
        answer = Offer(held);
        closed = closed || answer > held.size();
        held.erase(0, std::min(answer, held.size()));
      }
    } else {
      while (!piece.empty() && !closed) {
        const std::size_t answer = Offer(piece);
        closed = closed || answer > piece.size();
        const std::size_t length = piece.size();
        piece.erase(0, std::min(answer, length));
        if (answer < length) held = piece;
        if (answer == 0) break;
      }
    }
    if (closed) held.clear();
  }
};

// --- the streams ---

struct Session final : zarn::utils::CZARNTCPSessionBase {
  using Rules = SessionModel;
  Offers offers;
  std::string sent;
  int ends = 0;

  bool SendBytes(const std::string& bytes) {
    const bool done = SendMsg(bytes.data(), bytes.size()) == keelbase::AW_OK;
    if (done) sent += bytes;
    return done;
  }
  std::size_t HandleMessage(const char* data, std::size_t len) override {
    offers.emplace_back(data, len);
    const std::size_t answer = AnswerTo(offers.back());
    if (answer != 0 && *data == kSendBack) SendBytes(std::string(data, answer));
    if (answer != 0 && *data == kCloseStream) Close(0);
    return answer;
  }
  void OnPeerDisconnect(long) override { ++ends; }
  int OnConnected(long) override { return 0; }
  void OnRcvBufferOverFlow(std::uint32_t) override {}
  void End() { Close(0); }
};

struct Transport final : zarn::utils::CZARNTCPTransport {
  using Rules = TransportModel;
  Offers offers;
  std::string sent;
  int ends = 0;

  bool SendBytes(const std::string& bytes) {
    CAWMessageBlock block(bytes.data(), bytes.size(), CAWMessageBlock::borrow);
    const bool done = SendMsg(block, nullptr) == keelbase::AW_OK;
    if (done) sent += bytes;
    return done;
  }
  std::uint16_t HandleMessage(CAWMessageBlock& data) override {
    offers.push_back(data.FlattenChained());
    const std::string& bytes = offers.back();
    const std::size_t answer = AnswerTo(bytes);
    if (answer != 0 && bytes[0] == kSendBack) SendBytes(bytes.substr(0, answer));
    if (answer != 0 && bytes[0] == kCloseStream) Disconnect(0);
    return static_cast<std::uint16_t>(answer);
  }
  void OnPeerDisconnect(long) override { ++ends; }
  void End() { Disconnect(0); }
};

// --- one run ---

// A piece as one block or two, with or without room in front.
std::unique_ptr<CAWMessageBlock> MakeBlocks(FuzzedDataProvider& input, const std::string& piece) {
  const std::size_t headroom = input.PickValueInArray<std::size_t>({0, 50, 4000});
  const auto cut = input.ConsumeIntegralInRange<std::size_t>(1, piece.size());
  auto block = std::make_unique<CAWMessageBlock>(cut, headroom);
  block->Write(piece.data(), cut);
  if (cut < piece.size()) {
    auto second = std::make_unique<CAWMessageBlock>(piece.size() - cut);
    second->Write(piece.data() + cut, piece.size() - cut);
    block->Append(second.release());
  }
  return block;
}

template <class Stream>
class Run {
 public:
  explicit Run(FuzzedDataProvider& input) : input_(input) { Attach(); }

  void Go() {
    while (input_.remaining_bytes() != 0 && given_ < kMaxBytes) {
      switch (input_.ConsumeIntegralInRange(0, 7)) {
        case 0:
          Check(stream_.SendBytes(input_.ConsumeRandomLengthString(5000)) == !stream_.IsClose());
          break;
        case 1:
          fake_->AnswerNext(keelbase::AW_ERROR_PARTIAL_DATA,
                            input_.ConsumeIntegral<std::uint8_t>());
          break;
        case 2:
          fake_->ReadyToSend();
          break;
        case 3:
          stream_.End();
          rules_.held.clear();
          Attach();
          break;
        default:
          Receive(input_.ConsumeRandomLengthString(2000));
      }
      Check(stream_.offers == rules_.offers);
      stream_.offers.clear();
      rules_.offers.clear();
      if (stream_.IsClose()) Attach();
    }
  }

 private:
  void Receive(const std::string& piece) {
    if (piece.empty()) return;
    given_ += piece.size();
    const int endsBefore = stream_.ends;
    const auto block = MakeBlocks(input_, piece);
    fake_->Receive(*block);
    rules_.Receive(piece);
    Check(stream_.IsClose() == rules_.closed);
    Check(stream_.ends - endsBefore == (rules_.closed ? 1 : 0));
    Check(rules_.closed == !fake_->disconnects.empty());
  }

  // A new connection, after the last one was ended; that one has or still gets all that was sent.
  void Attach() {
    if (fake_) Check(fake_->wire + fake_->lingerData == stream_.sent);
    stream_.sent.clear();
    rules_.closed = false;
    fake_ = new FakeTcpTransport;
    keelbase::CAWAutoPtr<wface::IAWTransport> transport(fake_.Get());
    Check(stream_.SetTransportHandle(transport) == keelbase::AW_OK);
  }

  FuzzedDataProvider& input_;
  Stream stream_;
  typename Stream::Rules rules_;
  keelbase::CAWAutoPtr<FakeTcpTransport> fake_;
  std::size_t given_ = 0;
};

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  keelbase::IAWTraceManager::Instance()->SetSink([](std::uint32_t, std::string_view) {});
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  FuzzedDataProvider input(data, size);
  if (input.ConsumeBool())
    Run<Session>(input).Go();
  else
    Run<Transport>(input).Go();
  return 0;
}
