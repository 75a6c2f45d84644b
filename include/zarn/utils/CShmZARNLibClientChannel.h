// CShmZARNLibClientChannel.h - the client end of the message channel, over shared memory.
#pragma once

#include <cstddef>
#include <cstdint>

#include "keelbase/CAWError.h"
#include "keelbase/CAWMessageBlock.h"
#include "keelbase/CAWTimer.h"
#include "zarn/utils/CZARNShmIPCStreamBase.h"
#include "zarn/utils/detail/Reconnector.h"
#include "zarn/utils/zarndefines.h"

namespace zarn::utils {

// Connects to a peer's endpoint, connects again every second while the peer is away, and exchanges
// messages: a 16-bit type and a 32-bit tag, both passed through unchanged, and 0 to 65523 bytes.
//
//   class Client : public zarn::utils::CShmZARNLibClientChannel {
//     void OnZARNMessage(std::uint16_t type, std::uint32_t tag, const char* data,
//                        std::size_t size) override { ... }
//     int OnConnected(long reason) override {
//       CShmZARNLibClientChannel::OnConnected(reason);
//       SendZARNMessage(1, 2, "hello", 5);
//       return 1;
//     }
//   };
//   if (zarn::utils::ZARNLibInit() != 0) return 1;  // before everything else
//   client.Init(3, 4, 1, 2);  // on the network thread: we are 3_4, the peer listens at 1_2
//
// A subclass that overrides OnConnected, OnPeerDisconnect, OnClose, OnRcvBufferOverFlow or Close
// calls this class's version first: it keeps the state and the timer. OnConnectFailure is called
// for every attempt that fails within its second, so about once a second while the peer is away,
// and does nothing; OnPeerDisconnect for a connection that has ended only.
//
// A message is delivered whole, in order and at most once; what was under way when a connection
// ended may be lost. Nothing is exchanged on connecting: no greeting, no registration.
//
// Threads, ownership, use inside upcalls: as CZARNShmIPCStreamBase. Init is called on a platform
// thread, the network thread as a rule: connection and timer call back there. The destructor ends
// the connection and the attempts. Once Init has been called it runs on that thread always (see
// CAWThread::Call), also while the channel is closed: the timer of the next attempt may fire.
//
// Limits: a peer that sends a malformed frame costs a few trace lines and is not read from any
// more; the connection stays until the peer ends it or the owner calls OnClose. The same when more
// than 1 MiB stands unconsumed. An attempt that has not ended within its second is replaced by the
// next one, without an upcall. It takes two turns of the peer's loop, so a peer whose turns take
// longer than about half a second is not reached. Each connection takes 4 MiB of memory
// (AW_OPT_RING_SIZE).
class ZARNUTILS_API CShmZARNLibClientChannel : public CZARNShmIPCStreamBase,
                                               public keelbase::CAWTimerWrapperIDSink {
 public:
  CShmZARNLibClientChannel();
  ~CShmZARNLibClientChannel() override;

  std::size_t HandleMessage(const char* data, std::size_t len) override;
  void OnPeerDisconnect(long reason) override;  // closes, and tries again every second
  int OnConnected(long reason) override;        // messages may be sent from now on; returns 1

  // Drops the connection and connects anew, after a second: called by the owner, and by the stream
  // when a handler has closed it. Close alone starts no attempts, but does not end those that are
  // going on. What surely ends everything is deleting the channel.
  void OnClose() override;

  void OnConnectFailure(long reason) override;  // nothing: the timer tries again

  // For an owner that watches sizes and finds one too large: closes a connection, which comes back
  // with OnClose or Init only. Attempts that are going on already go on. Not for use inside
  // OnZARNMessage, see OnClose.
  void OnRcvBufferOverFlow(std::uint32_t size) override;

  keelbase::AWResult Close(long reason) override;  // not connected any more; see OnClose

  // Starts to connect endpoint (localFirst, localSecond) (ours, told to the peer) to
  // (peerFirst, peerSecond): at once, and then every second until the peer is there. 0: OnConnected
  // follows. 10001: no connector could be made this time; the attempts go on all the same. Or no
  // memory for their timer, and nothing has changed. Calling it again is right in both cases.
  virtual keelbase::AWResult Init(std::uint16_t localFirst, std::uint16_t localSecond,
                                  std::uint16_t peerFirst, std::uint16_t peerSecond);

  // A message has arrived. `data` is valid during the call only, and null when datasize is 0.
  virtual void OnZARNMessage(std::uint16_t type, std::uint32_t tag, const char* data,
                             std::size_t datasize) = 0;

  // Sends one message; never blocks. 0: accepted, it waits in the send queue if it must. 10001: not
  // connected or longer than 65523 bytes, nothing is sent; or the connection has failed or there is
  // no memory, see SendMsg. When that closes the stream, the channel connects anew after a second,
  // without OnPeerDisconnect or OnClose; a SendMsg of one's own starts no attempts.
  virtual keelbase::AWResult SendZARNMessage(std::uint16_t type, std::uint32_t tag,
                                             const char* data, std::size_t len);

  // The same with the unread bytes of a chain, which stays the caller's and as it is on every way
  // out.
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
