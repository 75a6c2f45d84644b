// FakeIpc.h - scripted stand-ins for local IPC: transport, connector, acceptor and manager, no
// sockets.
//
// A test scripts what each call answers, delivers events by hand, and reads afterwards what was
// called. The fakes of one test can write to one CallLog, so that the order across objects can be
// checked.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>
#include <utility>
#include <vector>

#include "fipc/CAWIPCManager.h"
#include "fipc/CAWIPCTransport.h"
#include "keelbase/CAWAutoPtr.h"
#include "keelbase/CAWIPCAddr.h"
#include "keelbase/CAWMessageBlock.h"
#include "keelbase/CAWTransport.h"

namespace zarn::test {

using CallLog = std::vector<std::string>;

// A counted base: GetReferences() is the number of holders, so 1 means that only the test is left.
template <class Interface>
class FakeCounted : public Interface {
 public:
  explicit FakeCounted(CallLog* log) : log_(log) {}

  std::uint32_t AddReference() override { return ++references_; }
  std::uint32_t ReleaseReference() override {
    const std::uint32_t left = --references_;
    if (left == 0) delete this;
    return left;
  }
  std::uint32_t GetReferences() const { return references_; }

 protected:
  void Note(const std::string& call) {
    if (log_ != nullptr) log_->push_back(call);
  }

 private:
  CallLog* log_;
  std::uint32_t references_ = 0;
};

class FakeTransport final : public FakeCounted<fipc::IAWIPCTransport> {
 public:
  static constexpr std::size_t kAll = static_cast<std::size_t>(-1);

  // How one SendData is answered: how many bytes it takes at most, and the result.
  struct SendStep {
    keelbase::AWResult result = keelbase::AW_OK;
    std::size_t take = kAll;
  };
  struct Segment {
    const char* data;
    std::size_t length;
  };

  explicit FakeTransport(CallLog* log = nullptr) : FakeCounted(log) {}

  // The script. Once sendScript is used up, everything is taken.
  std::deque<SendStep> sendScript;
  keelbase::AWResult openResult = keelbase::AW_OK;
  std::string peerPath;
  std::string localPath;

  // What happened.
  std::string wire;                  // the bytes taken, in order
  std::vector<std::size_t> offered;  // chained length of each SendData
  std::vector<Segment> segments;     // the blocks of the last SendData, as they were offered
  bool sendParameterWasNull = true;
  std::vector<long> disconnects;  // the reasons
  std::string lingerData;         // what AW_OPT_LINGER_DATA handed over
  int lingerCalls = 0;
  std::vector<bool> stopReading;  // every AW_OPT_STOP_READING

  void AnswerNext(keelbase::AWResult result, std::size_t take) {
    sendScript.push_back({result, take});
  }

  fipc::IAWIPCTransportSink* GetSink() const { return sink_; }

  // Events, as the platform delivers them: to the sink, while the transport is held.
  void Receive(keelbase::CAWMessageBlock& block) {
    keelbase::CAWAutoPtr<FakeTransport> self(this);
    if (sink_ != nullptr) sink_->OnReceive(block, this, nullptr);
  }
  void Receive(const std::string& bytes) {
    keelbase::CAWMessageBlock block(bytes.size());
    block.Write(bytes.data(), bytes.size());
    Receive(block);
  }
  void ReadyToSend() {
    keelbase::CAWAutoPtr<FakeTransport> self(this);
    if (sink_ != nullptr) sink_->OnSend(this, nullptr);
  }
  void End(long reason) {
    keelbase::CAWAutoPtr<FakeTransport> self(this);
    if (auto* sink = std::exchange(sink_, nullptr)) sink->OnDisconnect(reason, this);
  }

  keelbase::AWResult OpenWithSink(fipc::IAWIPCTransportSink* sink) override {
    Note("transport.OpenWithSink");
    if (openResult == keelbase::AW_OK) sink_ = sink;
    return openResult;
  }

  keelbase::AWResult SendData(keelbase::CAWMessageBlock& data,
                              fipc::CAWIPCTransportParameter* parameter) override {
    offered.push_back(data.GetChainedLength());
    segments.clear();
    for (const auto* block = &data; block != nullptr; block = block->GetNext())
      segments.push_back({block->GetReadPtr(), block->GetLength()});
    sendParameterWasNull = sendParameterWasNull && parameter == nullptr;
    SendStep step;
    if (!sendScript.empty()) {
      step = sendScript.front();
      sendScript.pop_front();
    }
    std::string bytes(std::min(step.take, offered.back()), '\0');
    data.CopyChained(bytes.data(), bytes.size());
    wire += bytes;
    data.AdvanceChainedReadPtr(bytes.size());
    return step.result;
  }

  keelbase::AWResult Disconnect(long reason) override {
    Note("transport.Disconnect(" + std::to_string(reason) + ")");
    sink_ = nullptr;
    disconnects.push_back(reason);
    return keelbase::AW_OK;
  }

  keelbase::AWResult GetOption(int code, void* value) override {
    if (code != keelbase::AW_OPT_PEER_ADDRESS && code != keelbase::AW_OPT_LOCAL_ADDRESS)
      return keelbase::AW_ERROR_FAILURE;
    *static_cast<keelbase::CAWIPCAddr*>(value) =
        keelbase::CAWIPCAddr(code == keelbase::AW_OPT_PEER_ADDRESS ? peerPath : localPath);
    return keelbase::AW_OK;
  }

  keelbase::AWResult SetOption(int code, void* value) override {
    if (code == keelbase::AW_OPT_STOP_READING) {
      stopReading.push_back(*static_cast<bool*>(value));
    } else if (code == keelbase::AW_OPT_LINGER_DATA) {
      Note("transport.LingerData");
      ++lingerCalls;
      lingerData += static_cast<keelbase::CAWMessageBlock*>(value)->FlattenChained();
    } else {
      return keelbase::AW_ERROR_FAILURE;
    }
    return keelbase::AW_OK;
  }

  bool IsReadingStopped() const { return !stopReading.empty() && stopReading.back(); }

 private:
  fipc::IAWIPCTransportSink* sink_ = nullptr;
};

class FakeConnector final : public FakeCounted<fipc::IAWIPCConnector> {
 public:
  explicit FakeConnector(CallLog* log = nullptr) : FakeCounted(log) {}

  keelbase::AWResult connectResult = keelbase::AW_OK;

  int connects = 0;
  int cancels = 0;
  std::string peerPath;
  std::string localPath;
  bool hadLocal = false;
  std::uint32_t parameter = 99;

  bool IsPending() const { return sink_ != nullptr; }

  // Delivers the one indication, unless it was cancelled.
  void Complete(long reason, fipc::IAWIPCTransport* transport) {
    keelbase::CAWAutoPtr<FakeConnector> self(this);
    if (auto* sink = std::exchange(sink_, nullptr))
      sink->OnIPCConnectIndication(reason, transport, this);
  }

  keelbase::AWResult AsyncConnect(fipc::IAWIPCAcceptorConnectorSink* sink,
                                  const keelbase::CAWIPCAddr& peer, std::uint32_t extra,
                                  const keelbase::CAWIPCAddr* local) override {
    Note("connector.AsyncConnect");
    ++connects;
    peerPath = peer.GetPath();
    hadLocal = local != nullptr;
    localPath = hadLocal ? local->GetPath() : std::string();
    parameter = extra;
    if (connectResult == keelbase::AW_OK) sink_ = sink;
    return connectResult;
  }

  keelbase::AWResult CancelConnect() override {
    Note("connector.CancelConnect");
    ++cancels;
    sink_ = nullptr;
    return keelbase::AW_OK;
  }

  keelbase::AWResult SetOption(int, void*) override { return keelbase::AW_ERROR_FAILURE; }

 private:
  fipc::IAWIPCAcceptorConnectorSink* sink_ = nullptr;
};

class FakeAcceptor final : public FakeCounted<fipc::IAWIPCAcceptor> {
 public:
  explicit FakeAcceptor(CallLog* log = nullptr) : FakeCounted(log) {}

  keelbase::AWResult StartListen(fipc::IAWIPCAcceptorConnectorSink*,
                                 const keelbase::CAWIPCAddr&) override {
    return keelbase::AW_OK;
  }
  keelbase::AWResult StopListen() override { return keelbase::AW_OK; }
  keelbase::AWResult SetOption(int, void*) override { return keelbase::AW_ERROR_FAILURE; }
};

// Stands in for the process's manager as long as it lives.
class FakeManager final : public fipc::CAWIPCManager {
 public:
  explicit FakeManager(CallLog* log = nullptr) : log_(log) { TEST_SetInstance(this); }
  ~FakeManager() override { TEST_SetInstance(nullptr); }
  FakeManager(const FakeManager&) = delete;
  FakeManager& operator=(const FakeManager&) = delete;

  keelbase::AWResult createResult = keelbase::AW_OK;   // any other: nothing is made
  keelbase::AWResult connectResult = keelbase::AW_OK;  // of the connectors made from now on

  std::vector<int> kinds;
  std::vector<keelbase::CAWAutoPtr<FakeConnector>> connectors;
  std::vector<keelbase::CAWAutoPtr<FakeAcceptor>> acceptors;
  bool outWasNull = true;  // on every call

  FakeConnector& Last() { return *connectors.back(); }

  keelbase::AWResult CreateConnector(int kind,
                                     keelbase::CAWAutoPtr<fipc::IAWIPCConnector>& out) override {
    kinds.push_back(kind);
    outWasNull = outWasNull && !out;
    out = nullptr;
    if (createResult != keelbase::AW_OK) return createResult;
    connectors.emplace_back(new FakeConnector(log_));
    Last().connectResult = connectResult;
    out = connectors.back().Get();
    return keelbase::AW_OK;
  }

  keelbase::AWResult CreateAcceptor(int kind,
                                    keelbase::CAWAutoPtr<fipc::IAWIPCAcceptor>& out) override {
    kinds.push_back(kind);
    outWasNull = outWasNull && !out;
    out = nullptr;
    if (createResult != keelbase::AW_OK) return createResult;
    acceptors.emplace_back(new FakeAcceptor(log_));
    out = acceptors.back().Get();
    return keelbase::AW_OK;
  }

 private:
  CallLog* log_;
};

}  // namespace zarn::test
