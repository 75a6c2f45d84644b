// RealTransport.h - for tests of real connections, of whatever transport: sinks that record, and an
// adopted network thread that is turned until something has happened.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <cstddef>
#include <functional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "NetworkThread.h"
#include "keelbase/CAWAutoPtr.h"
#include "keelbase/CAWMessageBlock.h"
#include "keelbase/CAWTransport.h"

namespace zarn::test {

using keelbase::AW_ERROR_FAILURE;
using keelbase::AW_ERROR_NOT_INITIALIZED;
using keelbase::AW_ERROR_PARTIAL_DATA;
using keelbase::AW_OK;
using keelbase::AWResult;
using keelbase::CAWAutoPtr;
using keelbase::CAWMessageBlock;
using keelbase::CAWTransportCounters;

// Turns the network thread until `condition` holds; false when that takes more than twenty seconds.
template <class Condition>
bool Await(Condition&& condition) {
  auto* network =
      keelbase::CAWThreadManager::Instance()->GetThread(keelbase::CAWThreadManager::TT_NETWORK);
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (!condition()) {
    if (std::chrono::steady_clock::now() > end) return false;
    if (!network->TEST_RunReady()) std::this_thread::sleep_for(std::chrono::microseconds(100));
  }
  return true;
}

inline void Turn() {
  for (int i = 0; i < 20; ++i) RunReady();
}

// Bytes that tell where they belong.
inline std::string Pattern(std::size_t size, std::size_t from = 0) {
  std::string text(size, '\0');
  for (std::size_t i = 0; i < size; ++i) {
    const std::size_t at = i + from;
    text[i] = static_cast<char>((at >> 8) ^ (at * 7) ^ (at >> 16));
  }
  return text;
}

// Records everything; a hook may do what an owner would do in that place.
template <class InterfaceType, class TransportType, class ParameterType>
class RecordingTransportSink final : public InterfaceType {
 public:
  using Interface = InterfaceType;
  using Transport = TransportType;
  using Parameter = ParameterType;

  void OnReceive(CAWMessageBlock& data, Transport* transport, Parameter*) override {
    EXPECT_FALSE(ended);
    received += data.FlattenChained();
    ++receives;
    if (onReceive) onReceive(transport);
  }
  void OnSend(Transport* transport, Parameter*) override {
    EXPECT_FALSE(ended);
    ++sends;
    if (onSend) onSend(transport);
  }
  void OnDisconnect(long why, Transport* transport) override {
    EXPECT_FALSE(ended);
    ended = true;
    reason = why;
    if (onDisconnect) onDisconnect(transport);
  }

  std::string received;
  int receives = 0;
  int sends = 0;
  bool ended = false;
  long reason = -1;
  std::function<void(Transport*)> onReceive;
  std::function<void(Transport*)> onSend;
  std::function<void(Transport*)> onDisconnect;
};

template <class Interface, class Transport, class Id>
class RecordingIndicationSink : public Interface {
 public:
  struct Indication {
    long reason;
    CAWAutoPtr<Transport> transport;
    Id* id;
  };

  // The next connection, of which the caller has the only reference.
  CAWAutoPtr<Transport> Take() {
    if (!Await([this] { return !got.empty(); })) {
      ADD_FAILURE() << "nobody came";
      return {};
    }
    auto transport = std::move(got.front().transport);
    got.erase(got.begin());
    return transport;
  }

  std::vector<Indication> got;
  int count = 0;
  bool keep = true;
  std::function<void(Transport*)> onIndication;

 protected:
  void Record(long reason, Transport* transport, Id* id) {
    EXPECT_EQ(reason == 0, transport != nullptr);
    if (onIndication) onIndication(transport);
    if (keep) got.push_back({reason, transport, id});
    ++count;
  }
};

// One end of a connection: the transport and what it has told.
template <class SinkType>
struct TransportEnd {
  using Sink = SinkType;
  using Transport = typename Sink::Transport;
  using Parameter = typename Sink::Parameter;

  CAWAutoPtr<Transport> transport;
  Sink sink;

  void Open() { EXPECT_EQ(transport->OpenWithSink(&sink), AW_OK); }
  AWResult Send(const std::string& text) {
    CAWMessageBlock block(text.data(), text.size(), CAWMessageBlock::borrow);
    return transport->SendData(block, nullptr);
  }
  // Sends pieces of that size until no more is taken; what was taken.
  std::string Fill(std::size_t size = 5000) {
    std::string taken;
    for (AWResult result = AW_OK; result == AW_OK;) {
      const std::string text = Pattern(size, taken.size());
      CAWMessageBlock block(text.data(), text.size(), CAWMessageBlock::borrow);
      result = transport->SendData(block, nullptr);
      EXPECT_TRUE(result == AW_OK || result == AW_ERROR_PARTIAL_DATA);
      taken.append(text, 0, text.size() - block.GetLength());
    }
    return taken;
  }
  template <class Value>
  void Set(int code, Value value) {
    EXPECT_EQ(transport->SetOption(code, &value), AW_OK);
  }
  void StopReading(bool stop) { Set(keelbase::AW_OPT_STOP_READING, stop); }
  CAWTransportCounters Counters() const {
    CAWTransportCounters counters;
    EXPECT_EQ(transport->GetOption(keelbase::AW_OPT_COUNTERS, &counters), AW_OK);
    return counters;
  }
};

// An end whose peer reads and writes only when a test says so.
template <class Sink, class Peer>
struct EndWithPeer : TransportEnd<Sink> {
  Peer peer;

  // Everything up to the end of the connection, turning the loop meanwhile.
  std::string ReceiveAll() {
    std::string all;
    EXPECT_TRUE(Await([&] {
      all += peer.Receive();
      return peer.ended;
    }));
    return all;
  }
  std::string ReceiveBytes(std::size_t count) {
    std::string all;
    EXPECT_TRUE(Await([&] {
      all += peer.Receive();
      return all.size() >= count;
    }));
    return all;
  }
};

}  // namespace zarn::test
