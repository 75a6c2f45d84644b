// SwallowingTransport.h - a transport that keeps nothing of what it is given, for tests that count
// allocations.
#pragma once

#include <cstddef>

#include "FakeTransport.h"

namespace zarn::test {

// Takes up to `room` bytes of each send and keeps none, or refuses with `error`; allocates nothing.
template <class Platform>
class SwallowingTransport : public FakeCounted<typename Platform::Transport> {
 public:
  SwallowingTransport() : FakeCounted<typename Platform::Transport>(nullptr) {}

  std::size_t room = static_cast<std::size_t>(-1);
  keelbase::AWResult error = keelbase::AW_OK;
  std::size_t taken = 0;
  int disconnects = 0;

  keelbase::AWResult OpenWithSink(typename Platform::TransportSink*) override {
    return keelbase::AW_OK;
  }
  keelbase::AWResult SendData(keelbase::CAWMessageBlock& data,
                              typename Platform::Parameter*) override {
    if (error != keelbase::AW_OK) return error;
    const std::size_t offered = data.GetChainedLength();
    const std::size_t part = offered < room ? offered : room;
    data.AdvanceChainedReadPtr(part);
    taken += part;
    return part == offered ? keelbase::AW_OK : keelbase::AW_ERROR_PARTIAL_DATA;
  }
  keelbase::AWResult Disconnect(long) override {
    ++disconnects;
    return keelbase::AW_OK;
  }
  keelbase::AWResult GetOption(int, void*) override { return keelbase::AW_OK; }
  keelbase::AWResult SetOption(int, void*) override { return keelbase::AW_OK; }
};

}  // namespace zarn::test
