// MetricsEntry.h - a stream's place in the list that snapshots of the metrics are taken from.
#pragma once

#include <cstdint>
#include <string>

#include "zarn/utils/zarndefines.h"

namespace keelbase {
class CAWThread;
}

namespace zarn::utils {

struct CZARNStreamMetrics;

namespace detail {

// A member of each stream. The stream joins when it connects and when it takes a connection over,
// on its thread, and leaves first of all when it is destroyed, on any: from then on nobody reads
// it. In between it is read on its thread only, so its counters need no protection. Joining again
// costs a lock and the text of an address; messages cost nothing.
class ZARNUTILS_API MetricsEntry {
 public:
  MetricsEntry() = default;
  ~MetricsEntry() { Leave(); }
  MetricsEntry(const MetricsEntry&) = delete;
  MetricsEntry& operator=(const MetricsEntry&) = delete;

  // The templates are in the library's sources, which alone use them.
  template <class Stream, class Address>
  void JoinConnecting(const Stream& stream, const Address& peer) noexcept;
  template <class Stream>
  void JoinAttached(const Stream& stream) noexcept;
  void Leave() noexcept;

 private:
  friend class MetricsRegistry;
  using Read = void (*)(const MetricsEntry& entry, CZARNStreamMetrics& metrics);

  template <class Stream>
  static void ReadStream(const MetricsEntry& entry, CZARNStreamMetrics& metrics);
  void Join(const void* stream, Read read) noexcept;

  // Guarded by the registry's lock, as is the place in its list.
  keelbase::CAWThread* thread_ = nullptr;  // null: not a platform thread, nobody can ask it
  const void* stream_ = nullptr;           // null: not in the list
  Read read_ = nullptr;
  MetricsEntry* previous_ = nullptr;
  MetricsEntry* next_ = nullptr;
  std::uint64_t number_ = 0;

  // The stream's thread's own.
  std::string target_;  // where it connects to; empty before the first Connect
  bool isClient_ = false;
};

}  // namespace detail

}  // namespace zarn::utils
