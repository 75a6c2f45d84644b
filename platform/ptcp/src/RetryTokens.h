// RetryTokens.h - how a client proves its address without the acceptor remembering it.
#pragma once

#include <optional>
#include <vector>

#include "ConnectionId.h"
#include "PacketKey.h"
#include "PtcpConnection.h"
#include "keelbase/CAWInetAddr.h"

namespace ptcp {

// A token holds the time and the id of the client's first packet; its tag also covers the address
// that it was sent to and the id that the client is to come back with.
class RetryTokens {
 public:
  static constexpr Time kValidity = 15'000'000'000;  // more than a connect may take

  explicit RetryTokens(const PacketKey& key) : key_(key) {}

  std::vector<std::uint8_t> Make(const keelbase::CAWInetAddr& client, const ConnectionId& original,
                                 const ConnectionId& comeBackWith, Time now) const;

  // The id of the client's first packet; none when the token is not ours, of another address or
  // id, or too old.
  std::optional<ConnectionId> Check(Bytes token, const keelbase::CAWInetAddr& client,
                                    const ConnectionId& cameWith, Time now) const;

 private:
  Tag Sign(Bytes content, const keelbase::CAWInetAddr& client, const ConnectionId& id) const;

  PacketKey key_;
};

}  // namespace ptcp
