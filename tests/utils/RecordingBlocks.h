// RecordingBlocks.h - streams for tests whose handlers are given blocks: frames end with ';', and
// everything that happens is noted.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "FakePtcp.h"
#include "RecordingStream.h"
#include "keelbase/CAWMessageBlock.h"
#include "zarn/utils/CPTCPStreamBase.h"
#include "zarn/utils/CZARNTCPTransport.h"

namespace zarn::test {

// Adds the noting to a stream class.
template <class Stream>
class BlockRecorder : public Stream {
 public:
  explicit BlockRecorder(CallLog* log = nullptr) : log_(log) {}
  ~BlockRecorder() override {
    if (destroyed != nullptr) *destroyed = true;
  }

  std::vector<std::string> views;  // what each HandleMessage was given
  std::vector<std::string> frames;
  std::vector<std::string> upcalls;                      // all but HandleMessage, with the reason
  const keelbase::CAWMessageBlock* lastBlock = nullptr;  // to be compared only
  bool* destroyed = nullptr;

  // Called in place of, or from inside, the upcalls. A hook runs from a copy: it may delete the
  // stream.
  std::function<std::uint16_t(keelbase::CAWMessageBlock&)> onMessage;
  std::function<void()> onEnd;

  std::uint16_t HandleMessage(keelbase::CAWMessageBlock& data) override {
    views.push_back(data.FlattenChained());
    lastBlock = &data;
    if (const auto hook = onMessage) return hook(data);
    return TakeFrame(data);
  }
  void OnPeerDisconnect(long reason) override {
    upcalls.push_back("OnPeerDisconnect(" + std::to_string(reason) + ")");
    if (log_ != nullptr) log_->push_back(upcalls.back());
    if (const auto hook = onEnd) hook();
  }

  std::uint16_t TakeFrame(const keelbase::CAWMessageBlock& data) {
    const std::string bytes = data.FlattenChained();
    const std::size_t end = bytes.find(';');
    if (end == std::string::npos) return 0;
    frames.push_back(bytes.substr(0, end));
    return static_cast<std::uint16_t>(end + 1);
  }

  using Stream::SetReceiveLimit;

 private:
  CallLog* log_;
};

class RecordingTcpTransport : public BlockRecorder<utils::CZARNTCPTransport> {
 public:
  using BlockRecorder::BlockRecorder;

  using BlockRecorder::SendMsg;
  // As the other streams send.
  keelbase::AWResult SendMsg(keelbase::CAWMessageBlock& data) { return SendMsg(data, nullptr); }
  keelbase::AWResult SendMsg(const char* bytes, std::size_t length) {
    keelbase::CAWMessageBlock block(bytes, length, keelbase::CAWMessageBlock::borrow);
    return SendMsg(block);
  }
  bool IsClosed() { return IsClose(); }
};

class RecordingPtcpStream : public BlockRecorder<utils::CPTCPStreamBase> {
 public:
  using BlockRecorder::BlockRecorder;
  using BlockRecorder::CountFurtherMessages;

  keelbase::AWResult SendMsg(const char* bytes, std::size_t length) {
    keelbase::CAWMessageBlock block(bytes, length, keelbase::CAWMessageBlock::borrow);
    return SendMessage(block, nullptr);
  }
};

struct OverTcpTransport {
  static constexpr const char* kName = "CZARNTCPTransport";
  using Platform = Tcp;
  using Stream = RecordingTcpTransport;
  using Transport = FakeTcpTransport;
  using Manager = FakeTcpManager;

  static constexpr keelbase::AWResult kNotConnected = keelbase::AW_ERROR_FAILURE;
};

struct NoManager {
  explicit NoManager(CallLog*) {}
};

struct OverPtcp {
  static constexpr const char* kName = "CPTCPStreamBase";
  using Platform = Ptcp;
  using Stream = RecordingPtcpStream;
  using Transport = FakePtcpTransport;
  using Manager = NoManager;
};

}  // namespace zarn::test
