// StreamMetrics.h - what a stream shows of itself in a snapshot: the templates of MetricsEntry.
#pragma once

#include <new>
#include <string>

#include "fshmipc/CAWShmIPCAddr.h"
#include "keelbase/CAWIPCAddr.h"
#include "keelbase/CAWInetAddr.h"
#include "keelbase/CAWTransport.h"
#include "zarn/utils/CZARNMetrics.h"
#include "zarn/utils/detail/MetricsEntry.h"

namespace zarn::utils {

inline std::string DescribeAddress(const keelbase::CAWIPCAddr& address) {
  const std::string& path = address.GetPath();
  return path.substr(path.rfind('/') + 1);  // all of it when there is no '/'
}

inline std::string DescribeAddress(const fshmipc::CAWShmIPCAddr& address) {
  return std::to_string(address.GetFirst()) + "_" + std::to_string(address.GetSecond());
}

inline std::string DescribeAddress(const keelbase::CAWInetAddr& address) {
  return address.GetIpDisplayName() + ":" + std::to_string(address.GetPort());
}

namespace detail {

template <class Stream>
void MetricsEntry::ReadStream(const MetricsEntry& entry, CZARNStreamMetrics& metrics) {
  const Stream& stream = *static_cast<const Stream*>(entry.stream_);
  metrics.transport = Stream::kMetricsTransport;
  metrics.isConnected = stream.transport_ && !stream.closed_;
  metrics.counters = stream.counters_;
  metrics.sendQueueLength = stream.sendQueue_.GetLength();
  const bool isTargetOnly = entry.isClient_ && !metrics.isConnected;
  metrics.peer = isTargetOnly ? entry.target_ : DescribeAddress(stream.peerAddr_);
  if (stream.counters_.connects != 0) metrics.local = DescribeAddress(stream.localAddr_);
  if (metrics.isConnected)
    stream.transport_->GetOption(keelbase::AW_OPT_COUNTERS, &metrics.connection);
}

template <class Stream, class Address>
void MetricsEntry::JoinConnecting(const Stream& stream, const Address& peer) noexcept {
  isClient_ = true;
  try {
    target_ = DescribeAddress(peer);
  } catch (const std::bad_alloc&) {
    target_.clear();
  }
  Join(&stream, &ReadStream<Stream>);
}

template <class Stream>
void MetricsEntry::JoinAttached(const Stream& stream) noexcept {
  Join(&stream, &ReadStream<Stream>);
}

}  // namespace detail

}  // namespace zarn::utils
