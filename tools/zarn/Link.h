// Link.h - what the subcommands need of a way to exchange messages, whatever lies below it.
//
// Everything here is used on the loop's thread (Loop.h), and calls back there.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "Endpoint.h"
#include "keelbase/CAWError.h"
#include "keelbase/CAWTransport.h"

namespace zarn::tool {

struct Message {
  std::uint16_t type = 0;
  std::uint32_t tag = 0;
  std::string_view data;  // valid during the call only
};

// --- client side ---

class ClientSink {
 public:
  virtual void OnUp() = 0;
  // The connection was lost or an attempt has failed; the next attempt comes by itself.
  virtual void OnDown(long reason) = 0;
  virtual void OnMessage(const Message& message) = 0;
  virtual void OnRoom() = 0;  // what was queued has shrunk

 protected:
  ~ClientSink() = default;
};

class ClientLink {
 public:
  virtual ~ClientLink() = default;

  // Connects, and connects again whenever the connection is lost. Says what is wrong when that
  // cannot even be tried, else nothing.
  virtual std::string Start() = 0;
  virtual keelbase::AWResult Send(const Message& message) = 0;
  virtual std::size_t GetQueueLength() = 0;  // bytes that the system has not taken yet
  // Bytes that a Close could still lose, as far as that is known.
  virtual std::uint64_t GetUndelivered() { return GetQueueLength(); }
  virtual void Close() = 0;                            // for good; not inside OnMessage
  virtual std::string Explain(long reason) const = 0;  // why there is no connection, in one line
  virtual bool IsFinal(long /*reason*/) const { return false; }  // trying again will not help
};

// --- server side ---

class ServerPeer {
 public:
  virtual const std::string& GetName() const = 0;  // printable, unique while the program runs
  // As the kernel tells them; process 0: they are not known.
  virtual keelbase::CAWPeerCredentials GetCredentials() const { return {}; }
  virtual std::string GetSubject() const { return {}; }  // of its certificate, which was checked
  virtual std::uint64_t GetMalformed() const = 0;
  virtual std::uint64_t GetMessages() const = 0;  // received, as are the bytes, headers included
  virtual std::uint64_t GetBytes() const = 0;
  virtual keelbase::AWResult Send(const Message& message) = 0;
  virtual std::size_t GetQueueLength() const = 0;  // bytes that wait for the peer
  // Inside OnMessage: ends it at once, drops what waits; OnPeerGone follows.
  virtual void Drop() = 0;

 protected:
  ~ServerPeer() = default;
};

class ServerSink {
 public:
  virtual void OnPeer(ServerPeer& peer) = 0;
  virtual void OnPeerRefused(long reason) = 0;                 // somebody who did not get so far
  virtual void OnPeerGone(ServerPeer& peer, long reason) = 0;  // the last that is heard of it
  virtual void OnMessage(ServerPeer& peer, const Message& message) = 0;
  virtual void OnListenFailed(long reason) = 0;

 protected:
  ~ServerSink() = default;
};

class ServerLink {
 public:
  virtual ~ServerLink() = default;

  virtual std::string Start() = 0;  // says what is wrong, else nothing
  virtual void Stop() = 0;          // no new peers, and closes those that there are
  virtual std::string Check() = 0;  // says why no client can find this any more, else nothing
  virtual std::string Explain(long reason) const = 0;  // why listening failed
};

// --- schemes ---

struct Scheme {
  std::string_view name;
  std::string_view form;  // how its urls are written, for messages
  bool (*isAddress)(std::string_view address);
  std::unique_ptr<ClientLink> (*makeClient)(const Endpoint& peer, Pair own, ClientSink& sink);
  std::unique_ptr<ServerLink> (*makeServer)(const Endpoint& own, ServerSink& sink);
  bool isSecured = false;  // Endpoint::security is for it
};

const Scheme* FindScheme(std::string_view name);  // null: there is none of that name
std::string ListSchemes();

std::string DescribeReason(long reason);  // of any scheme

}  // namespace zarn::tool
