// PtcpConnection.h - one connection as a state machine, without sockets, threads or timers.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>

#include "ByteQueue.h"
#include "ConnectionId.h"
#include "FairWindow.h"
#include "LonePackets.h"
#include "PacketKey.h"
#include "PtcpHandshake.h"
#include "StreamGaps.h"

namespace ptcp {

// Datagrams begin with 1200 bytes and grow as far as the path lets them through, but no further
// than an Ethernet frame does. Inside a machine the path is known, and cutting bytes up is most of
// the work.
inline constexpr std::size_t kSmallDatagram = 1200;
inline constexpr std::size_t kMaxDatagram = 1472;
inline constexpr std::size_t kMaxDatagramLoopback = 16000;  // four of them fit in one write

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

// The peer's and our bytes, in order, each once; see IAWPseudoTCPTransport for limits. All failures
// are told by IsDead() and Reason(). Every operation takes the time, which must not go back.
class PtcpConnection {
 public:
  // `loopback`: both ends are on this machine.
  explicit PtcpConnection(PtcpHost& host, bool loopback = false)
      : host_(host), loopback_(loopback) {}
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
  std::uint64_t Unacknowledged() const { return out_.End() - (server_ ? 0 : 1) - Acknowledged(); }
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

  // Whether `packet`, or the start of one, is addressed to the peer's id, as all of ours are.
  bool MayHaveSent(Bytes packet) const;

  // The keys of our packets.
  const PtcpHandshake& TEST_Handshake() const { return handshake_; }

 private:
  struct Callbacks;
  static const ngtcp2_callbacks& CallbackTable();
  bool MakeClient(Time now);
  bool MakeServer(const InitialHeader& initial, const ConnectionId& original, Time now);
  void Configure(ngtcp2_settings& settings, ngtcp2_transport_params& params, Time now);
  RandomBits MakeRandomBits();
  bool AddLocalId(ConnectionId& id);
  void OnStreamData(std::int64_t stream, Bytes data, bool last);
  void OpenStream();
  void Ended(int error, Time now);
  void SendClose(const ngtcp2::CloseError& error, Time now);
  struct Offer;
  Offer MakeOffer(bool room);
  bool WriteOne(Time now, std::uint64_t room, std::size_t& total);
  void NoticeNarrowPath(Time now);
  void SetKeepAlive();
  std::uint64_t UpdateFairWindow(Time now);
  void CountAndSend(Bytes datagram);
  std::uint64_t UnprovedRoom() const {
    return 3 * datagramBytesIn_ - std::min(datagramBytesOut_, 3 * datagramBytesIn_);
  }

  PtcpHost& host_;
  const bool loopback_;
  ngtcp2_conn* conn_ = nullptr;
  bool server_ = false;
  bool established_ = false;
  bool dead_ = false;
  int reason_ = 0;

  bool violated_ = false;  // the peer did what a side of ours does not
  bool noMemory_ = false;
  PtcpHandshake handshake_;
  StreamGaps gaps_;

  // Until the peer's address is proved, this bounds what is sent to it.
  std::uint64_t datagramBytesIn_ = 0;
  std::uint64_t datagramBytesOut_ = 0;

  std::size_t largestPacket_ = kMaxDatagramLoopback;
  std::uint64_t progressedTo_ = 0;  // stream offset
  Time progressed_ = 0;             // when that was acknowledged, or bytes were sent behind it
  Time notBefore_ = 0;              // no timer is due earlier
  FairWindow fairWindow_;
  Time lastLoss_ = kNever;
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
