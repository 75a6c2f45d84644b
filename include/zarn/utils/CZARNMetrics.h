// CZARNMetrics.h - what all streams of the process have done, for the process and for zarn stat.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "keelbase/CAWError.h"
#include "keelbase/CAWTransport.h"
#include "zarn/utils/CZARNStreamCounters.h"
#include "zarn/utils/zarndefines.h"

namespace zarn::utils {

// One stream or channel that has had a connection or has tried to get one, until it is destroyed.
struct CZARNStreamMetrics {
  std::uint64_t number = 0;  // of the stream in its process, counted from 1, never used again
  std::string transport;     // "ipc", "shm", "tcp", "tls", "ptcp" or "sslptcp"
  bool isClient = false;     // it connects by itself; else it was handed an accepted connection
  bool isConnected = false;

  // The name of a local endpoint, "1_2", or host:port. While a client is not connected `peer` is
  // where it connects to. What an accepted local peer says of itself is a claim, any bytes.
  std::string peer;
  std::string local;

  std::uint64_t sendQueueLength = 0;  // bytes that wait in the stream now
  CZARNStreamCounters counters;       // of the stream, over all its connections

  // Of the connection that there is now, zeros without one: partial sends, and what waits in it.
  keelbase::CAWTransportCounters connection;
};

struct CZARNMetrics {
  std::vector<CZARNStreamMetrics> streams;  // by number
  bool isComplete = true;  // false: a thread did not answer in time or there was no memory
};

// A snapshot of all streams that belong to platform threads. Each of these threads reads its own
// streams between two callbacks, so that the figures of one stream go together; those of different
// threads are taken at slightly different times. A stream that was attached on a thread of another
// kind is not seen.
//
// Any thread, also inside callbacks. Waits for the other threads, `milliseconds` at most; a thread
// that is waited for elsewhere (two snapshots on two platform threads at once) is one that does not
// answer. Connecting and destroying streams waits while a thread reads, about a microsecond for
// each of its streams. Never throws.
//
//   for (const auto& stream : ZARNTakeMetrics().streams)
//     if (stream.sendQueueLength > kMuch) Warn(stream.peer);
ZARNUTILS_API CZARNMetrics ZARNTakeMetrics(std::uint32_t milliseconds = 1000);

// Shows the metrics to zarn stat: listens at the socket file "/zarn/stat/<process id>" below the
// system directory, for our own user and root. Each program that connects is sent one snapshot as
// lines of JSON, and the end. Nothing is read from it. Served between callbacks of the calling
// thread when that is a platform thread, else of the network thread, which this waits for.
//
// 0, also when it is enabled already, and while another process is setting up an endpoint in that
// directory: should listening fail after that, a trace line says so, and it is not enabled. 10001
// without a system directory, memory or such a thread, and when that one has stopped and is not the
// caller's own; else the acceptor's errno value. A process that adopts its threads does so first.
// The file is removed by ZARNDisableMetrics and at exit; one that a killed process left is
// replaced, or removed by zarn stat --clean.
//
// Limits: 16 snapshots in 2 seconds, whoever comes then is turned away; 4096 streams in each; a
// reader gets a second to take it, and a thread of the process a second to answer.
ZARNUTILS_API keelbase::AWResult ZARNEnableMetrics();

// Any thread; waits for the one that serves. 0; 10001 without memory, and nothing has changed.
ZARNUTILS_API keelbase::AWResult ZARNDisableMetrics();

}  // namespace zarn::utils
