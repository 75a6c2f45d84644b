// MemoryBytes.h - a byte transport in memory, for TLS without sockets: what it is given waits until
// a test moves it to the other end.
#pragma once

#include <algorithm>
#include <cstddef>
#include <string>
#include <utility>
#include <vector>

#include "keelbase/CAWMessageBlock.h"
#include "keelbase/CAWTransport.h"
#include "sslutils/internal/ByteTransport.h"

namespace zarn::test {

// Both ends keep one: the transport is destroyed with its stream, this is the test's.
struct MemoryEnd {
  sslutils::internal::ByteSink* sink = nullptr;     // null: not open, or disconnected
  std::string sent;                                 // waits to be moved
  std::size_t room = static_cast<std::size_t>(-1);  // that `sent` may have
  keelbase::AWResult sendResult = keelbase::AW_OK;  // anything else: every send fails with it
  bool roomWanted = false;
  bool disconnected = false;
  bool destroyed = false;
  bool readingStopped = false;
  std::uint32_t lingerMs = 2000;
  std::string lingerData;
  bool awaitsEnd = false;

  // Delivers bytes that "arrive" here.
  void Arrive(const std::string& bytes) {
    keelbase::CAWMessageBlock block(bytes.size());
    block.Write(bytes.data(), bytes.size());
    if (sink != nullptr) sink->OnBytes(block);
  }
  void End(long reason) {
    if (auto* ended = std::exchange(sink, nullptr)) ended->OnEnd(reason);
  }
  void MakeRoom(std::size_t size) {
    room = size;
    if (std::exchange(roomWanted, false) && sink != nullptr) sink->OnRoom();
  }
};

class MemoryBytes final : public sslutils::internal::ByteTransport {
 public:
  explicit MemoryBytes(MemoryEnd& end) : end_(end) {}
  ~MemoryBytes() override {
    end_.destroyed = true;
    end_.sink = nullptr;
  }

  keelbase::AWResult Open(sslutils::internal::ByteSink* sink) override {
    end_.sink = sink;
    return keelbase::AW_OK;
  }
  keelbase::AWResult Send(keelbase::CAWMessageBlock& chain) override {
    if (end_.sendResult != keelbase::AW_OK) return end_.sendResult;
    const std::size_t space = end_.room - std::min(end_.room, end_.sent.size());
    std::string bytes(std::min(space, chain.GetChainedLength()), '\0');
    chain.CopyChained(bytes.data(), bytes.size());
    chain.AdvanceChainedReadPtr(bytes.size());
    end_.sent += bytes;
    if (chain.GetChainedLength() == 0) return keelbase::AW_OK;
    end_.roomWanted = true;
    return keelbase::AW_ERROR_PARTIAL_DATA;
  }
  void Disconnect() override {
    end_.disconnected = true;
    end_.sink = nullptr;
  }
  keelbase::AWResult GetOption(int, void*) override { return keelbase::AW_ERROR_FAILURE; }
  keelbase::AWResult SetOption(int code, void* value) override {
    if (code == keelbase::AW_OPT_STOP_READING) end_.readingStopped = *static_cast<bool*>(value);
    if (code == keelbase::AW_OPT_LINGER) end_.lingerMs = *static_cast<std::uint32_t*>(value);
    if (code == keelbase::internal::AW_OPT_AWAIT_END) end_.awaitsEnd = *static_cast<bool*>(value);
    if (code == keelbase::AW_OPT_LINGER_DATA)
      end_.lingerData += static_cast<keelbase::CAWMessageBlock*>(value)->FlattenChained();
    return keelbase::AW_OK;
  }

 private:
  MemoryEnd& end_;
};

}  // namespace zarn::test
