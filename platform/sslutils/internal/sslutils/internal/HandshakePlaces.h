// HandshakePlaces.h - bounds how many handshakes are under way at once.
#pragma once

#include <algorithm>
#include <cstddef>
#include <list>
#include <utility>

#include "keelbase/CAWInetAddr.h"

namespace sslutils::internal {

// Holds them in the order in which they began: `limit` of one host, four times as many in all, but
// no more than `most`. When there is one too many the oldest has to go. Clients that stay silent
// keep nobody out by that, while one that goes on with its handshake is through with it long before
// it is the oldest.
template <class Handshake>
class HandshakePlaces {
  struct Holder {
    keelbase::CAWInetAddr host;  // port 0
    Handshake handshake;
  };

 public:
  using Place = typename std::list<Holder>::iterator;  // until it is given up

  void SetLimit(std::size_t limit, std::size_t most) {
    limit_ = limit;
    most_ = std::min(kHosts * limit, most);
  }

  Place Take(const keelbase::CAWInetAddr& peer, Handshake handshake) {
    keelbase::CAWInetAddr host = peer;
    host.SetPort(0);
    return holders_.insert(holders_.end(), Holder{host, std::move(handshake)});
  }
  Handshake GiveUp(Place place) {
    Handshake handshake = std::move(place->handshake);
    holders_.erase(place);
    return handshake;
  }

  // After each Take: the place that has to be given up for the new one, else End().
  Place FindSurplus(Place taken) {
    if (holders_.size() <= std::min(limit_, most_)) return End();
    const auto ofHost = [&](const Holder& each) { return each.host == taken->host; };
    const auto count = std::count_if(holders_.begin(), holders_.end(), ofHost);
    if (static_cast<std::size_t>(count) > limit_)
      return std::find_if(holders_.begin(), holders_.end(), ofHost);
    return holders_.size() > most_ ? holders_.begin() : End();
  }
  Place Begin() { return holders_.begin(); }
  Place End() { return holders_.end(); }

 private:
  static constexpr std::size_t kHosts = 4;  // so many take all places

  std::size_t limit_ = 0;
  std::size_t most_ = 0;
  std::list<Holder> holders_;
};

}  // namespace sslutils::internal
