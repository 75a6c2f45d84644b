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
     [](auto& s) -> auto& {return s.counters.messagesSent;
}  // namespace zarn::utils
}
, {"messages_received", true, "Messages that the handler took",
   [](auto& s) -> auto& {return s.counters.messagesReceived;
}
}
, {"bytes_sent", true, "Bytes of the messages that were accepted for sending",
   [](auto& s) -> auto& {return s.counters.bytesSent;
}
}
, {"bytes_received", true, "Bytes that arrived",
   [](auto& s) -> auto& {return s.counters.bytesReceived;
}
}
, {"connects", true, "Connections that the stream has had",
   [](auto& s) -> auto& {return s.counters.connects;
}
}
, {"connect_failures", true, "Attempts to connect that failed",
   [](auto& s) -> auto& {return s.counters.connectFailures;
}
}
, {"malformed_frames", true, "Malformed frames, after each of which nothing more was read",
   [](auto& s) -> auto& {return s.counters.malformedFrames;
}
}
, {"send_queue_bytes", false, "Bytes that wait in the stream",
   [](auto& s) -> auto& {return s.sendQueueLength;
}
}
, {"send_queue_high_bytes", false, "Most bytes that ever waited in the stream",
   [](auto& s) -> auto& {return s.counters.sendQueueHighMark;
}
}
, {"connection_sends", true, "Sends that the present connection took, wholly or in part",
   [](auto& s) -> auto& {return s.connection.blocksSent;
}
}
, {"connection_receives", true, "Times that the present connection delivered bytes",
   [](auto& s) -> auto& {return s.connection.blocksReceived;
}
}
, {"connection_bytes_sent", true, "Bytes that the system took from the present connection",
   [](auto& s) -> auto& {return s.connection.bytesSent;
}
}
, {"connection_bytes_received", true, "Bytes that the system gave the present connection",
   [](auto& s) -> auto& {return s.connection.bytesReceived;
}
}
, {"connection_writes", true, "System calls in which the present connection wrote",
   [](auto& s) -> auto& {return s.connection.systemCallsSent;
}
}
, {"connection_partial_sends", true, "Sends that the present connection did not take wholly",
   [](auto& s) -> auto& {return s.connection.partialSends;
}
}
, {"connection_queue_bytes", false, "Bytes that wait in the present connection",
   [](auto& s) -> auto& {return s.connection.queuedBytes;
}
}
, {"connection_queue_high_bytes", false, "Most bytes that ever waited in the present connection",
   [](auto& s) -> auto& {return s.connection.queuedHighMark;
}
}
,
}
;

}  // namespace zarn::utils
