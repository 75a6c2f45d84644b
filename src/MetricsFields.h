// MetricsFields.h - the numbers of a stream's metrics by name, for all that write or read them.
#pragma once

#include <cstdint>

#include "zarn/utils/CZARNMetrics.h"

namespace zarn::utils {

struct MetricsField {
  const char* name;  // in JSON; with what Prometheus wants around it also there
  bool isCounter;    // else it goes up and down
  const char* help;
  std::uint64_t& (*at)(CZARNStreamMetrics& stream);
};

inline constexpr MetricsField kMetricsFields[] = {
    {"messages_sent", true, "Messages that were accepted for sending",
     [](CZARNStreamMetrics& s) -> std::uint64_t& { return s.counters.messagesSent; }},
    {"messages_received", true, "Messages that the handler took",
     [](CZARNStreamMetrics& s) -> std::uint64_t& { return s.counters.messagesReceived; }},
    {"bytes_sent", true, "Bytes of the messages that were accepted for sending",
     [](CZARNStreamMetrics& s) -> std::uint64_t& { return s.counters.bytesSent; }},
    {"bytes_received", true, "Bytes that arrived",
     [](CZARNStreamMetrics& s) -> std::uint64_t& { return s.counters.bytesReceived; }},
    {"connects", true, "Connections that the stream has had",
     [](CZARNStreamMetrics& s) -> std::uint64_t& { return s.counters.connects; }},
    {"connect_failures", true, "Attempts to connect that failed",
     [](CZARNStreamMetrics& s) -> std::uint64_t& { return s.counters.connectFailures; }},
    {"malformed_frames", true, "Malformed frames, after each of which nothing more was read",
     [](CZARNStreamMetrics& s) -> std::uint64_t& { return s.counters.malformedFrames; }},
    {"send_queue_bytes", false, "Bytes that wait in the stream",
     [](CZARNStreamMetrics& s) -> std::uint64_t& { return s.sendQueueLength; }},
    {"send_queue_high_bytes", false, "Most bytes that ever waited in the stream",
     [](CZARNStreamMetrics& s) -> std::uint64_t& { return s.counters.sendQueueHighMark; }},
    {"connection_sends", true, "Sends that the present connection took, wholly or in part",
     [](CZARNStreamMetrics& s) -> std::uint64_t& { return s.connection.blocksSent; }},
    {"connection_receives", true, "Times that the present connection delivered bytes",
     [](CZARNStreamMetrics& s) -> std::uint64_t& { return s.connection.blocksReceived; }},
    {"connection_bytes_sent", true, "Bytes that the system took from the present connection",
     [](CZARNStreamMetrics& s) -> std::uint64_t& { return s.connection.bytesSent; }},
    {"connection_bytes_received", true, "Bytes that the system gave the present connection",
     [](CZARNStreamMetrics& s) -> std::uint64_t& { return s.connection.bytesReceived; }},
    {"connection_writes", true, "System calls in which the present connection wrote",
     [](CZARNStreamMetrics& s) -> std::uint64_t& { return s.connection.systemCallsSent; }},
    {"connection_partial_sends", true, "Sends that the present connection did not take wholly",
     [](CZARNStreamMetrics& s) -> std::uint64_t& { return s.connection.partialSends; }},
    {"connection_queue_bytes", false, "Bytes that wait in the present connection",
     [](CZARNStreamMetrics& s) -> std::uint64_t& { return s.connection.queuedBytes; }},
    {"connection_queue_high_bytes", false, "Most bytes that ever waited in the present connection",
     [](CZARNStreamMetrics& s) -> std::uint64_t& { return s.connection.queuedHighMark; }},
};

}  // namespace zarn::utils
