// RecordingChannel.h - client and server channels for tests, which note every message. A test whose
// rule holds for all of a kind runs over all `ClientWorlds` or `ServerWorlds`.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "Frames.h"
#include "NetworkThread.h"
#include "RecordingStream.h"
#include "TempRoot.h"
#include "zarn/utils/CShmZARNLibClientChannel.h"
#include "zarn/utils/CShmZARNLibServerChannel.h"
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
  bool takesNothing = false;        // leaves all that comes unconsumed

  std::size_t HandleMessage(const char* data, std::size_t len) override {
    return takesNothing ? 0 : Channel::HandleMessage(data, len);
  }

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

// --- channel classes ---

// What channels take from the stream class below them.
struct ChannelOverIpc : OverIpc {
  static constexpr bool kAdvancesSentBlocks = true;
  static keelbase::CAWIPCAddr EndpointOf(const TempRoot& root, int first, int second) {
    return keelbase::CAWIPCAddr(
        root.GetIpcPath(std::to_string(first) + "_" + std::to_string(second)));
  }
};

struct ChannelOverShm : OverShm {
  static constexpr bool kAdvancesSentBlocks = false;
  static fshmipc::CAWShmIPCAddr EndpointOf(const TempRoot&, std::uint16_t first,
                                           std::uint16_t second) {
    return {first, second};
  }
};

struct IpcClientWorld : ChannelOverIpc {
  static constexpr const char* kName = "CZARNLibClientChannel";
  using Channel = Recording<utils::CZARNLibClientChannel>;
};

struct IpcServerWorld : ChannelOverIpc {
  static constexpr const char* kName = "CZARNLibServerChannel";
  using Channel = Recording<utils::CZARNLibServerChannel>;
};

struct ShmClientWorld : ChannelOverShm {
  static constexpr const char* kName = "CShmZARNLibClientChannel";
  using Channel = Recording<utils::CShmZARNLibClientChannel>;
};

struct ShmServerWorld : ChannelOverShm {
  static constexpr const char* kName = "CShmZARNLibServerChannel";
  using Channel = Recording<utils::CShmZARNLibServerChannel>;
};

using ClientWorlds = ::testing::Types<IpcClientWorld, ShmClientWorld>;
using ServerWorlds = ::testing::Types<IpcServerWorld, ShmServerWorld>;

// --- fixtures ---

template <class World>
struct ChannelFixture {
  using Transport = keelbase::CAWAutoPtr<typename World::Transport>;
  using Handle = keelbase::CAWAutoPtr<typename World::Platform::Transport>;

  CallLog log;

  Transport NewTransport() { return Transport(new typename World::Transport(&log)); }
};

template <class World>
struct ClientFixture : ChannelFixture<World> {
  using typename ChannelFixture<World>::Transport;
  using Client = typename World::Channel;

  HandClock clock;
  TempRoot root;
  typename World::Manager manager;
  std::unique_ptr<Client> client = std::make_unique<Client>();

  auto Endpoint(std::uint16_t first, std::uint16_t second) {
    return World::EndpointOf(root, first, second);
  }

  // Ends the connect that is under way well.
  Transport CompleteLast() {
    Transport transport = this->NewTransport();
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

template <class World>
struct ServerFixture : ChannelFixture<World> {
  using typename ChannelFixture<World>::Transport;
  using Server = typename World::Channel;

  Transport transport = this->NewTransport();
  std::unique_ptr<Server> server = std::make_unique<Server>(transport.Get());
};

}  // namespace zarn::test
