// CShmZARNLibServerChannel.h - the accepting end of the message channel, over shared memory.
#pragma once

#include <cstddef>
#include <cstdint>

#include "fshmipc/CAWShmIPCTransport.h"
#include "keelbase/CAWError.h"
#include "keelbase/CAWMessageBlock.h"
#include "zarn/utils/CZARNShmIPCStreamBase.h"
#include "zarn/utils/zarndefines.h"

namespace zarn::utils {

// One accepted connection of the message channel, see CShmZARNLibClientChannel for what it carries.
// Made inside the acceptor's OnShmIPCConnectIndication:
//
//   void OnShmIPCConnectIndication(long reason, fshmipc::IAWShmIPCTransport* transport, ...)
//   override {
//     if (reason == 0) channels.push_back(std::make_unique<MyChannel>(transport));
//   }
//
// Once its connection has ended the channel stays closed; a new connection gets a new object. An
// owner that wants to hear of the end overrides OnPeerDisconnect, which may delete the channel;
// others look at IsClosed(). The other upcalls do nothing either, so an override need not call
// them.
//
// Threads, ownership, use inside upcalls: as CZARNShmIPCStreamBase. A channel may be deleted inside
// any upcall.
//
// Limits: a peer that sends a malformed frame costs a few trace lines and is not read from any
// more; the connection stays until the peer ends it or the owner calls Close. The same when more
// than 1 MiB stands unconsumed. A peer that never reads makes the send queue grow: a server that
// answers to unknown clients bounds GetSendQueueLength().
class ZARNUTILS_API CShmZARNLibServerChannel : public CZARNShmIPCStreamBase {
 public:
  // Takes over the transport with a reference of its own. Messages come later, never from inside.
  // With null nothing comes and sending answers an error. With a transport that somebody else has
  // opened nothing comes either, but what is sent goes out, and the channel's end closes it.
  explicit CShmZARNLibServerChannel(fshmipc::IAWShmIPCTransport* transport);

  std::size_t HandleMessage(const char* data, std::size_t len) override;
  void OnPeerDisconnect(long reason) override;
  int OnConnected(long reason) override;  // not called: the connection is there from the start
  void OnClose() override;
  void OnConnectFailure(long reason) override;  // not called
  void OnRcvBufferOverFlow(std::uint32_t size) override;

  // A message has arrived. `data` is valid during the call only, and null when datasize is 0.
  virtual void OnZARNMessage(std::uint16_t type, std::uint32_t tag, const char* data,
                             std::size_t datasize) = 0;

  // Sends one message with the unread bytes of a chain, which stays the caller's and as it is on
  // every way out. Never blocks. 0: accepted, it waits in the send queue if it must. 10001: longer
  // than 65523 bytes, or the connection has ended, and nothing is sent; else see SendMsg.
  virtual keelbase::AWResult SendZARNMessage(std::uint16_t type, std::uint32_t tag,
                                             keelbase::CAWMessageBlock& data);

  // The same with plain bytes, 0 to 65523.
  virtual keelbase::AWResult SendZARNMessage(std::uint16_t type, std::uint32_t tag,
                                             const char* data, std::size_t len);
};

}  // namespace zarn::utils
