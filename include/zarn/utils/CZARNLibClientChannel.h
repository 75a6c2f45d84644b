// CZARNLibClientChannel.h - the client end of the message channel, over local IPC.
#pragma once

#include <cstddef>
#include <cstdint>

#include "keelbase/CAWError.h"
#include "keelbase/CAWMessageBlock.h"
#include "keelbase/CAWTimer.h"
#include "zarn/utils/CZARNIPCStreamBase.h"
#include "zarn/utils/detail/Reconnector.h"
#include "zarn/utils/zarndefines.h"

namespace zarn::utils {

// Connects to a peer's endpoint, connects again every second while the peer is away, and exchanges
// messages: a 16-bit type and a 32-bit tag, both passed through unchanged, and 0 to 65523 bytes.
//
//   class Client : public zarn::utils::CZARNLibClientChannel {
//     void OnZARNMessage(std::uint16_t type, std::uint32_t tag, const char* data,
//                        std::size_t size) override { ... }
//     int OnConnected(long reason) override {
//       CZARNLibClientChannel::OnConnected(reason);
//       SendZARNMessage(1, 2, "hello", 5);
//       return 1;
//     }
//   };
//   client.Init(3, 4, 1, 2);  // on the network thread: we are 3_4, the peer listens at 1_2
//
// A subclass that overrides OnConnected, OnPeerDisconnect, OnRcvBufferOverFlow or Close calls this
// class's version first: it keeps the state and the timer. OnPeerDisconnect is called for every
// attempt that fails within its second, so about once a second while the peer is away. Asked before
// this class's version, IsConnected() is true there for a connection that was lost, and false for
// an attempt that failed (and for a connection that was closed inside OnZARNMessage).
//
// A message is delivered whole, in order and at most once; what was under way when a connection
// ended may be lost. Nothing is exchanged on connecting: no greeting, no registration.
//
// Threads, ownership, use inside upcalls: as CZARNIPCStreamBase. Init is called on a platform
// thread, the network thread as a rule: connection and timer call back there. The destructor ends
// the connection and the attempts. Once Init has been called it runs on that thread always (see
// CAWThread::Call), also while the channel is closed: the timer of the next attempt may fire.
//
// Limits: a peer that sends a malformed frame costs a few trace lines and is not read from any
// more; the connection stays until the peer ends it or the owner calls OnClose. The same when more
// than 1 MiB stands unconsumed. An attempt that has not ended within its second (the peer's accept
// queue is full) is replaced by the next one, without an upcall.
class ZARNUTILS_API CZARNLibClientChannel : public CZARNIPCStreamBase,
                                            public keelbase::CAWTimerWrapperIDSink {
 public:
  CZARNLibClientChannel();
  ~CZARNLibClientChannel() override;

  std::size_t HandleMessage(const char* data, std::size_t len) override;
  void OnPeerDisconnect(long reason) override;  // closes, and tries again every second
  int OnConnected(long reason) override;        // messages may be sent from now on; returns 1

  // For an owner that watches sizes and finds one too large: closes a connection, which comes back
  // with OnClose or Init only. Attempts that are going on already go on. Not for use inside
  // OnZARNMessage, see OnClose.
  void OnRcvBufferOverFlow(std::uint32_t size) override;

  keelbase::AWResult Close(long reason) override;  // not connected any more; see OnClose

  // Starts to connect endpoint localFirst_localSecond (ours, told to the peer; needs no file) to
  // peerFirst_peerSecond. 0: OnConnected follows as soon as the peer is there; the first try is
  // made at once. 10001: no install root ("ZARN_ROOT") or no memory for the timer, and a connection
  // that there is stays; else the platform's error. Neither starts attempts, and attempts that are
  // going on go on. Close a channel that was connected before calling it again, see
  // CZARNIPCStreamBase::Connect.
  virtual keelbase::AWResult Init(std::uint16_t localFirst, std::uint16_t localSecond,
                                  std::uint16_t peerFirst, std::uint16_t peerSecond);

  // Called by the owner: drops the connection and connects anew, after a second. Close drops it and
  // starts no attempts, but does not end those that are going on, and inside OnZARNMessage it
  // counts as a lost connection. What surely ends everything is deleting the channel.
  virtual void OnClose();

  // Not called: a failed connect is an OnPeerDisconnect.
  virtual void OnConnectFailure(long reason);

  // A message has arrived. `data` is valid during the call only, and null when datasize is 0.
  virtual void OnZARNMessage(std::uint16_t type, std::uint32_t tag, const char* data,
                             std::size_t datasize) = 0;

  // Sends one message; never blocks. 0: accepted, it waits in the send queue if it must. 10001: not
  // connected or longer than 65523 bytes, and nothing is sent; or no memory, see SendMsg. When that
  // closes the stream, the channel connects anew after a second, without OnPeerDisconnect; a
  // SendMsg of one's own starts no attempts. Else see SendMsg. An empty message on a channel that
  // is not connected answers 10002.
  virtual keelbase::AWResult SendZARNMessage(std::uint16_t type, std::uint32_t tag,
                                             const char* data, std::size_t len);

  // The same with the unread bytes of a chain, which stays the caller's on every way out, on the
  // stack or not. Accepted bytes are marked as read. An empty chain on a channel that is not
  // connected answers 10001, as any other.
  virtual keelbase::AWResult SendZARNMessage(std::uint16_t type, std::uint32_t tag,
                                             keelbase::CAWMessageBlock& data);

  void OnTimer(keelbase::CAWTimerWrapperID* timer) override;

  bool IsConnected() const { return reconnector_.IsConnected(); }

  // Attempts made by the timer since the last success.
  std::uint32_t GetRetryCount() const { return reconnector_.GetRetryCount(); }

 private:
  keelbase::AWResult ConnectToPeer();

  std::uint16_t localFirst_ = 0;
  std::uint16_t localSecond_ = 0;
  std::uint16_t peerFirst_ = 0;
  std::uint16_t peerSecond_ = 0;
  detail::Reconnector reconnector_;
};

}  // namespace zarn::utils
