// FakeTransport.h - scripted stand-ins for any message transport of the platform: transport,
// connector, acceptor and manager, without sockets or shared memory.
//
// A test scripts what each call answers, delivers events by hand, and reads afterwards what was
// called. The fakes of one test can write to one CallLog, so that the order across objects can be
// checked. FakeIpc.h and FakeShmIpc.h make them fit one platform library each: `Platform` names its
// interfaces.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "keelbase/CAWAutoPtr.h"
#include "keelbase/CAWError.h"
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
  void Note(std::string_view call) {
    if (log_ != nullptr) log_->emplace_back(call);
  }

 private:
  CallLog* log_;
  std::uint32_t references_ = 0;
};

// How one SendData is answered: how many bytes it takes at most, and the result.
struct SendStep {
  static constexpr std::size_t kAll = static_cast<std::size_t>(-1);
  keelbase::AWResult result = keelbase::AW_OK;
  std::size_t take = kAll;
};

// Where one block of an offer stood, and how long it was.
struct Segment {
  const char* data;
  std::size_t length;
};

// All of a transport but how it tells its addresses.
template <class Platform>
class ScriptedTransport : public FakeCounted<typename Platform::Transport> {
 public:
  using Sink = typename Platform::TransportSink;
  using Self = keelbase::CAWAutoPtr<ScriptedTransport>;

  explicit ScriptedTransport(CallLog* log) : FakeCounted<typename Platform::Transport>(log) {}

  // The script. Once sendScript is used up, everything is taken.
  std::deque<SendStep> sendScript;
  keelbase::AWResult openResult = keelbase::AW_OK;
  typename Platform::Address peer;
  typename Platform::Address local;

  // What happened.
  std::string wire;                  // the bytes taken, in order
  std::vector<std::size_t> offered;  // chained length of each SendData
  std::vector<Segment> segments;     // the blocks of the last SendData, as they were offered
  bool sendParameterWasNull = true;
  std::vector<typename Platform::Parameter*> sendParameters;  // of each SendData
  std::vector<long> disconnects;                              // the reasons
  std::string lingerData;                                     // what AW_OPT_LINGER_DATA handed over
  int lingerCalls = 0;
  std::vector<bool> stopReading;  // every AW_OPT_STOP_READING

  void AnswerNext(keelbase::AWResult result, std::size_t take) {
    sendScript.push_back({result, take});
  }

  Sink* GetSink() const { return sink_; }

  // Events, as the platform delivers them: to the sink, while the transport is held.
  void Receive(keelbase::CAWMessageBlock& block) {
    const Self self(this);
    if (sink_ != nullptr) sink_->OnReceive(block, this, nullptr);
  }
  void Receive(const std::string& bytes) {
    keelbase::CAWMessageBlock block(bytes.size());
    block.Write(bytes.data(), bytes.size());
    Receive(block);
  }
  void ReadyToSend() {
    const Self self(this);
    if (sink_ != nullptr) sink_->OnSend(this, nullptr);
  }
  void End(long reason) {
    const Self self(this);
    if (auto* sink = std::exchange(sink_, nullptr)) sink->OnDisconnect(reason, this);
  }

  keelbase::AWResult OpenWithSink(Sink* sink) override {
    this->Note("transport.OpenWithSink");
    if (openResult == keelbase::AW_OK) sink_ = sink;
    return openResult;
  }

  keelbase::AWResult SendData(keelbase::CAWMessageBlock& data,
                              typename Platform::Parameter* parameter) override {
    offered.push_back(data.GetChainedLength());
    segments.clear();
    for (const auto* block = &data; block != nullptr; block = block->GetNext())
      segments.push_back({block->GetReadPtr(), block->GetLength()});
    sendParameterWasNull = sendParameterWasNull && parameter == nullptr;
    sendParameters.push_back(parameter);
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
    this->Note("transport.Disconnect(" + std::to_string(reason) + ")");
    sink_ = nullptr;
    disconnects.push_back(reason);
    return keelbase::AW_OK;
  }

  keelbase::AWResult SetOption(int code, void* value) override {
    if (code == keelbase::AW_OPT_STOP_READING) {
      stopReading.push_back(*static_cast<bool*>(value));
    } else if (code == keelbase::AW_OPT_LINGER_DATA) {
      this->Note("transport.LingerData");
      ++lingerCalls;
      lingerData += static_cast<keelbase::CAWMessageBlock*>(value)->FlattenChained();
    } else {
      return keelbase::AW_ERROR_FAILURE;
    }
    return keelbase::AW_OK;
  }

  bool IsReadingStopped() const { return !stopReading.empty() && stopReading.back(); }

 private:
  Sink* sink_ = nullptr;
};

// All of a connector but the parameters of its AsyncConnect.
template <class Platform>
class ConnectorScript : public FakeCounted<typename Platform::Connector> {
 public:
  using Address = typename Platform::Address;
  using Sink = typename Platform::ConnectSink;

  explicit ConnectorScript(CallLog* log) : FakeCounted<typename Platform::Connector>(log) {}

  keelbase::AWResult connectResult = keelbase::AW_OK;

  int connects = 0;
  int cancels = 0;
  Address peer;
  Address local;
  bool hadLocal = false;

  bool IsPending() const { return sink_ != nullptr; }

  // Delivers the one indication, unless it was cancelled.
  void Complete(long reason, typename Platform::Transport* transport) {
    const keelbase::CAWAutoPtr<ConnectorScript> self(this);
    if (auto* sink = std::exchange(sink_, nullptr))
      Platform::Indicate(*sink, reason, transport, this);
  }

  keelbase::AWResult CancelConnect() override {
    this->Note("connector.CancelConnect");
    ++cancels;
    sink_ = nullptr;
    return keelbase::AW_OK;
  }

 protected:
  keelbase::AWResult Start(Sink* sink, const Address& to, const Address* from) {
    this->Note("connector.AsyncConnect");
    ++connects;
    peer = to;
    hadLocal = from != nullptr;
    local = hadLocal ? *from : Address();
    if (connectResult == keelbase::AW_OK) sink_ = sink;
    return connectResult;
  }

 private:
  Sink* sink_ = nullptr;
};

// The connectors of local transports; others are specialised beside their Platform.
template <class Platform>
class ScriptedConnector final : public ConnectorScript<Platform> {
 public:
  using Address = typename Platform::Address;

  explicit ScriptedConnector(CallLog* log = nullptr) : ConnectorScript<Platform>(log) {}

  std::uint32_t parameter = 99;

  keelbase::AWResult AsyncConnect(typename Platform::ConnectSink* sink, const Address& to,
                                  std::uint32_t extra, const Address* from) override {
    parameter = extra;
    return this->Start(sink, to, from);
  }
  keelbase::AWResult SetOption(int, void*) override { return keelbase::AW_ERROR_FAILURE; }
};

template <class Platform>
class ScriptedAcceptor final : public FakeCounted<typename Platform::Acceptor> {
 public:
  explicit ScriptedAcceptor(CallLog* log = nullptr)
      : FakeCounted<typename Platform::Acceptor>(log) {}

  keelbase::AWResult StartListen(typename Platform::ConnectSink*,
                                 const typename Platform::Address&) override {
    return keelbase::AW_OK;
  }
  keelbase::AWResult StopListen() override { return keelbase::AW_OK; }
  keelbase::AWResult SetOption(int, void*) override { return keelbase::AW_ERROR_FAILURE; }
};

// Stands in for the process's manager as long as it lives. How connectors and acceptors are asked
// for is the platform's.
template <class Platform>
class ScriptedManager : public Platform::Manager {
 public:
  using Connector = ScriptedConnector<Platform>;
  using Acceptor = ScriptedAcceptor<Platform>;

  explicit ScriptedManager(CallLog* log) : log_(log) { this->TEST_SetInstance(this); }
  ~ScriptedManager() override { this->TEST_SetInstance(nullptr); }
  ScriptedManager(const ScriptedManager&) = delete;
  ScriptedManager& operator=(const ScriptedManager&) = delete;

  keelbase::AWResult createResult = keelbase::AW_OK;   // any other: nothing is made
  keelbase::AWResult connectResult = keelbase::AW_OK;  // of the connectors made from now on

  int requests = 0;  // also those that failed
  std::vector<keelbase::CAWAutoPtr<Connector>> connectors;
  std::vector<keelbase::CAWAutoPtr<Acceptor>> acceptors;
  bool outWasNull = true;  // on every call

  Connector& Last() { return *connectors.back(); }

 protected:
  template <class Interface, class Fake>
  keelbase::AWResult Create(keelbase::CAWAutoPtr<Interface>& out,
                            std::vector<keelbase::CAWAutoPtr<Fake>>& made) {
    ++requests;
    outWasNull = outWasNull && !out;
    out = nullptr;
    if (createResult != keelbase::AW_OK) return createResult;
    made.emplace_back(new Fake(log_));
    out = made.back().Get();
    return keelbase::AW_OK;
  }
  keelbase::AWResult CreateOneConnector(keelbase::CAWAutoPtr<typename Platform::Connector>& out) {
    const keelbase::AWResult result = Create(out, connectors);
    if (result == keelbase::AW_OK) Last().connectResult = connectResult;
    return result;
  }

 private:
  CallLog* log_;
};

}  // namespace zarn::test
