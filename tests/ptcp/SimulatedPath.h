// SimulatedPath.h - two connections on a simulated clock, and a path between them that delays,
// drops, reorders, duplicates and damages.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <utility>
#include <vector>

#include "PtcpConnection.h"
#include "SealedPackets.h"

namespace ptcp::test {

using Generator = std::mt19937_64;

inline constexpr Time kMillisecond = 1000000;
inline constexpr Time kSecond = 1000 * kMillisecond;

struct PathTraits {
  Time delay = 10 * kMillisecond;
  Time jitter = 0;  // up to this more for each datagram, which reorders them
  double drop = 0;
  double duplicate = 0;
  double flip = 0;                 // one bit of the datagram
  std::size_t largest = SIZE_MAX;  // longer datagrams are dropped
};

// One end: where a connection's datagrams go to, and its ids.
class SimulatedHost final : public PtcpHost {
 public:
  explicit SimulatedHost(Generator& random) : random_(random) {}
  void SendDatagram(Bytes datagram) override { output(datagram); }
  bool AddId(const ConnectionId& id) override { return takesIds && ids.insert(Key(id)).second; }
  void RemoveId(const ConnectionId& id) override { ids.erase(Key(id)); }
  Tag ResetToken(const ConnectionId& id) override { return resetKey_.Sign({id.View()}); }
  void FillRandom(std::uint8_t* out, std::size_t length) override {
    std::generate_n(out, length, [this] { return static_cast<std::uint8_t>(random_()); });
  }

  bool Knows(const ConnectionId& id) const { return ids.count(Key(id)) != 0; }

  std::function<void(Bytes)> output = [](Bytes) {};
  bool takesIds = true;
  std::set<Datagram> ids;

 private:
  static Datagram Key(const ConnectionId& id) { return {id.View().begin(), id.View().end()}; }
  Generator& random_;
  PacketKey resetKey_;
};

// A client and a server; the server's side is made by the first packet that can make one.
class SimulatedPair {
 public:
  SimulatedPair(std::uint64_t seed, const PathTraits& traits)
      : random(seed), traits_(traits), clientHost(random), serverHost(random) {
    clientHost.output = [this](Bytes datagram) { Carry(datagram, true); };
    serverHost.output = [this](Bytes datagram) { Carry(datagram, false); };
    client = std::make_unique<PtcpConnection>(clientHost);
  }

  bool Start() {
    if (!client->Connect(now)) return false;
    client->Flush(now);
    return true;
  }

  // What is next: a datagram arrives or a timer is due. False when nothing ever will be, or not
  // before `end`.
  bool Step(Time end = kNever) {
    Time next = onTheWay_.empty() ? kNever : onTheWay_.begin()->first;
    next = std::min(next, client->Due());
    if (server != nullptr) next = std::min(next, server->Due());
    if (next == kNever || next > end) return false;
    now = std::max(now, next);
    while (!onTheWay_.empty() && onTheWay_.begin()->first <= now) {
      const auto [toServer, datagram] = std::move(onTheWay_.begin()->second);
      onTheWay_.erase(onTheWay_.begin());
      toServer ? ToServer(datagram) : ToClient(datagram);
    }
    for (PtcpConnection* one : {client.get(), server.get()}) {
      if (one == nullptr) continue;
      one->OnTimer(now);
      one->Flush(now);
    }
    return true;
  }

  template <class Condition>
  bool StepUntil(Condition&& condition, Time limit = 60 * kSecond) {
    const Time end = now + limit;
    while (!condition()) {
      if (!Step(end)) return condition();
    }
    return true;
  }

  bool Establish() {
    return Start() && StepUntil([this] {
             return client->IsEstablished() && server != nullptr && server->IsEstablished();
           });
  }

  void ToClient(Bytes datagram) {
    const auto id = DestinationOf(datagram);
    if (id && clientHost.Knows(*id)) client->Receive(datagram, now);
  }
  void ToServer(Bytes datagram) {
    bytesToServer += datagram.size();
    if (server != nullptr) return server->Receive(datagram, now);
    const auto initial = ReadInitial(datagram);
    if (!initial) return;
    server = std::make_unique<PtcpConnection>(serverHost);
    if (server->Accept(*initial, initial->destination, now)) server->Receive(datagram, now);
    if (server->IsDead()) server.reset();
  }

  void SetTraits(const PathTraits& traits) { traits_ = traits; }

  Generator random;
  Time now = kSecond;
  std::uint64_t bytesToServer = 0;
  std::uint64_t bytesToClient = 0;  // sent, whatever became of them
  std::function<void(Bytes, bool toServer)> watch = [](Bytes, bool) {};

 private:
  bool Chance(double probability) {
    return std::uniform_real_distribution<double>()(random) < probability;
  }

  void Carry(Bytes bytes, bool toServer) {
    watch(bytes, toServer);
    if (!toServer) bytesToClient += bytes.size();
    const int copies = Chance(traits_.duplicate) ? 2 : 1;
    for (int copy = 0; copy < copies; ++copy) {
      if (bytes.size() > traits_.largest || Chance(traits_.drop)) continue;
      Datagram datagram(bytes.begin(), bytes.end());
      if (Chance(traits_.flip)) {
        const std::size_t bit = random() % (datagram.size() * 8);
        datagram[bit / 8] = static_cast<std::uint8_t>(datagram[bit / 8] ^ (1U << bit % 8));
      }
      const Time late = traits_.jitter == 0 ? 0 : random() % traits_.jitter;
      onTheWay_.emplace(now + traits_.delay + late, std::make_pair(toServer, std::move(datagram)));
    }
  }

  PathTraits traits_;
  std::multimap<Time, std::pair<bool, Datagram>> onTheWay_;

 public:
  SimulatedHost clientHost;
  SimulatedHost serverHost;
  std::unique_ptr<PtcpConnection> client;
  std::unique_ptr<PtcpConnection> server;
};

}  // namespace ptcp::test
