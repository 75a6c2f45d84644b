// ShmSegment.h - the memory of one connection: a sealed memory file with two rings, mapped.
#pragma once

#include <cstddef>
#include <cstdint>

#include "ShmRing.h"
#include "keelbase/internal/FileDescriptor.h"

namespace fshmipc {

using keelbase::internal::FileDescriptor;

// Larger than the cache that each processor has for itself: else the writer takes lines back from
// the reader's, which costs more than to take them from the cache that both share.
inline constexpr std::uint32_t kDefaultRingSize = 2 * 1024 * 1024;
bool IsRingSize(std::uint32_t size);  // a power of two from 64 KiB to 256 MiB

// A page of control words, then the ring that the connector writes, then the one that the acceptor
// writes. Its size can never change, and all of its memory is reserved: touching it cannot fail.
class ShmSegment {
 public:
  ShmSegment() = default;
  ~ShmSegment() { Unmap(); }
  ShmSegment(ShmSegment&& other) noexcept;
  ShmSegment& operator=(ShmSegment&& other) noexcept;

  // Makes one of zeros; `file` is to be passed to the peer. 0 or an errno value.
  int Create(std::uint32_t ringSize, FileDescriptor& file);

  // Maps a peer's, whatever it is in truth. 0; EPROTO when it is not what Create makes; else an
  // errno value.
  int Attach(const FileDescriptor& file, std::uint32_t ringSize);

  Ring ConnectorRing() const { return RingAt(0); }
  Ring AcceptorRing() const { return RingAt(1); }

  void Unmap();

 private:
  int Map(const FileDescriptor& file, std::uint32_t ringSize);
  Ring RingAt(std::size_t index) const;

  char* memory_ = nullptr;
  std::size_t ringSize_ = 0;
};

}  // namespace fshmipc
