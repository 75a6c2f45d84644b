// PtcpConnection.h - one connection as a state machine, without sockets, threads or timers.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <vector>

#include "ByteQueue.h"
#include "ConnectionId.h"
#include "PacketKey.h"

struct ngtcp2_callbacks;
struct ngtcp2_conn;
struct ngtcp2_settings;
struct ngtcp2_transport_params;

namespace ptcp {

inline constexpr std::size_t kLocalIdSize = 8;        // of the ids that we make
inline constexpr std::size_t kLargestDatagram = 1472;  // an Ethernet frame without its headers

// Nanoseconds on any clock that never goes back.
using Time = std::uint64_t;
inline constexpr Time kNever = UINT64_MAX;

// What a connection needs of its surroundings. None of these may call the connection.
class PtcpHost {
 public:
  virtual void SendDatagram(Bytes datagram) = 0;
  // An id by which packets may come from now on; false when it is taken already.
  virtual bool AddId(const ConnectionId& id) = 0;
  virtual void RemoveId(const ConnectionId& id) = 0;
  // What proves to the peer that it was the owner of `id` who forgot the connection.
  virtual Tag ResetToken(const ConnectionId& id) = 0;
  virtual void FillRandom(std::uint8_t* out, std::size_t length) = 0;

 protected:
  ~PtcpHost() = default;
};

// A client's first packet, as far as it is readable without a key.
struct InitialHeader {
  ConnectionId destination;
  ConnectionId source;
  Bytes token;
};

// The peer's and our bytes, in order, each once; see IAWPseudoTCPTransport for limits. All failures
// are told by IsDead() and Reason(). Every operation takes the time, which must not go back.
class PtcpConnection {
 public:
  explicit PtcpConnection(PtcpHost& host) : host_(host) {}
  ~PtcpConnection();
  PtcpConnection(const PtcpConnection&) = delete;
  PtcpConnection& operator=(const PtcpConnection&) = delete;

  // One of the two begins. False without memory; it is dead then.
  bool Connect(Time now);
  // `original` is the id of the client's very first packet; `initial` and it differ when the client
  // has proved its address by a token. Receive the packet itself next.
  bool Accept(const InitialHeader& initial, const ConnectionId& original, Time now);

  void Receive(Bytes datagram, Time now);
  void OnTimer(Time now);
  Time Due() const;      // when OnTimer is to be called; kNever: not at all
  void Flush(Time now);  // sends what may be sent now

  bool IsEstablished() const { return established_; }
  bool IsDead() const { return dead_; }
  int Reason() const { return reason_; }  // once dead: 0 in order, else an errno value

  // Takes all of it. Throws std::bad_alloc, with nothing taken.
  void Reserve(std::size_t length) { out_.Reserve(length); }
  void Send(const char* data, std::size_t length) { out_.Append(data, length); }
  void Finish() { finishing_ = true; }  // no more will be sent
  std::size_t Unsent() const { return static_cast<std::size_t>(out_.End() - sent_); }
  std::uint64_t Acknowledged() const {
    return server_ || out_.Begin() == 0 ? out_.Begin() : out_.Begin() - 1;  // the opening byte
  }
  bool IsAllAcknowledged() const { return out_.Size() == 0; }
  // The end may arrive before bytes that must be sent again.
  bool IsFinishAcknowledged() const { return finishAcknowledged_ && IsAllAcknowledged(); }

  std::size_t Readable() const { return in_.Size(); }
  std::size_t Read(char* out, std::size_t length);
  bool HasPeerFinished() const { return peerFinished_; }  // what is readable is the last

  // Tells the peer that all is done (everything it needs was acknowledged) or that it is not, once,
  // and is dead from here on.
  void Close(bool inOrder, Time now);
  void Fail(int reason);  // without telling anybody

  // --- packets without a connection ---

  // The id that the datagram is for; none when it is no packet at all.
  static std::optional<ConnectionId> Destination(Bytes datagram);
  // None when it cannot be the first packet of a connection.
  static std::optional<InitialHeader> ReadInitial(Bytes datagram);
  // What asks the client to come again with `token`, under the id `source`. Empty when impossible.
  static std::vector<std::uint8_t> MakeRetry(const InitialHeader& initial,
                                             const ConnectionId& source, Bytes token);
  // What tells the sender of `datagram` that nobody knows its connection; shorter than that is.
  static std::vector<std::uint8_t> MakeReset(
      Bytes datagram, const Tag& token,
      const std::function<void(std::uint8_t*, std::size_t)>& fillRandom);

  // The key of our packets once established.
  const PacketKey& TEST_SendKey() const { return sendKey_; }

 private:
  struct Callbacks;
  using Random = std::array<std::uint8_t, 16>;
  static constexpr std::size_t kLargestHello = 1024;

  bool MakeClient(Time now);
  bool MakeServer(const InitialHeader& initial, const ConnectionId& original, Time now);
  void Configure(ngtcp2_settings& settings, ngtcp2_transport_params& params, Time now);
  bool AddLocalId(ConnectionId& id);
  bool InstallInitialKeys(const ConnectionId& id);
  bool InstallHandshakeKeys();
  bool InstallSendKey();
  bool InstallReceiveKey();
  bool SendHello(std::uint32_t level, Bytes content, bool withParams);
  bool ReadParams(Bytes encoded);
  bool OnHello(std::uint32_t level, Bytes data);
  bool OnInitialHello();
  bool OnHandshakeHello();
  bool OnStreamData(std::int64_t stream, Bytes data, bool last);
  void OpenStream();
  void Ended(int error, Time now);
  void SendClose(const void* closeError, Time now);
  bool WriteOne(Time now, std::size_t& total);
  void CountAndSend(Bytes datagram);
  std::uint64_t UnprovedRoom() const {
    return 3 * datagramBytesIn_ - std::min(datagramBytesOut_, 3 * datagramBytesIn_);
  }

  PtcpHost& host_;
  ngtcp2_conn* conn_ = nullptr;
  bool server_ = false;
  bool established_ = false;
  bool dead_ = false;
  int reason_ = 0;

  PacketKey initialSendKey_;
  PacketKey initialReceiveKey_;
  PacketKey sendKey_;
  PacketKey receiveKey_;
  Random clientRandom_{};
  Random serverRandom_{};
  int step_ = 0;  // of the handshake: how many of the peer's messages were read
  std::array<std::vector<std::uint8_t>, 2> hello_;  // what came of the peer's next message
  std::array<std::vector<std::uint8_t>, 2> ourHello_;  // must stay until acknowledged

  // Until the peer's address is proved, this bounds what is sent to it.
  std::uint64_t datagramBytesIn_ = 0;
  std::uint64_t datagramBytesOut_ = 0;

  std::int64_t stream_ = -1;
  bool blocked_ = false;
  bool finishing_ = false;
  bool finishSent_ = false;
  bool finishAcknowledged_ = false;
  bool prefaceRead_ = false;
  bool peerFinished_ = false;
  std::uint64_t sent_ = 0;  // stream offset
  ByteQueue out_;
  ByteQueue in_;
};

}  // namespace ptcp
