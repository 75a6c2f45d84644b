// RecordingChannel.h - client and server channels for tests, which note every message.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "FakeIpc.h"
#include "Frames.h"
#include "NetworkThread.h"
#include "TempRoot.h"
#include "zarn/utils/CZARNLibClientChannel.h"
#include "zarn/utils/CZARNLibServerChannel.h"

namespace zarn::test {

// Adds the noting to a channel class.
template <class Channel>
class Recording : public Channel {
 public:
  using Channel::Channel;

  std::vector<Message> messages;
  std::function<void()> onMessage;  // called inside OnZARNMessage
  bool readAfterHook = false;       // read the payload only after onMessage

  void OnZARNMessage(std::uint16_t type, std::uint32_t tag, const char* data,
                     std::size_t size) override {
    if (readAfterHook) return ReadAfterHook(type, tag, data, size);
    messages.push_back({type, tag, {data, size}, data == nullptr, data});
    if (const auto hook = onMessage) hook();  // may delete the channel
  }

 private:
  void ReadAfterHook(std::uint16_t type, std::uint32_t tag, const char* data, std::size_t size) {
    if (const auto hook = onMessage) hook();
    messages.push_back({type, tag, {data, size}, data == nullptr, data});
  }
};

using RecordingClient = Recording<utils::CZARNLibClientChannel>;
using RecordingServer = Recording<utils::CZARNLibServerChannel>;

struct ClientFixture {
  using Transport = keelbase::CAWAutoPtr<FakeTransport>;

  HandClock clock;
  TempRoot root;
  FakeManager manager;
  std::unique_ptr<RecordingClient> client = std::make_unique<RecordingClient>();

  // Ends the connect that is under way well.
  Transport CompleteLast() {
    Transport transport(new FakeTransport);
    manager.Last().Complete(0, transport.Get());
    return transport;
  }
  Transport ConnectFully() {
    client->Init(3, 4, 1, 2);
    return CompleteLast();
  }
  Transport CompleteAttemptOfATick() {
    clock.Advance(std::chrono::seconds(1));
    return CompleteLast();
  }
};

struct ServerFixture {
  using Transport = keelbase::CAWAutoPtr<FakeTransport>;

  CallLog log;
  Transport transport{new FakeTransport(&log)};
  std::unique_ptr<RecordingServer> server = std::make_unique<RecordingServer>(transport.Get());
};

}  // namespace zarn::test
