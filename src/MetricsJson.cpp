// MetricsJson.cpp - see MetricsJson.h.
#include "MetricsJson.h"

#include <json/writer.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>

#include "MetricsFields.h"

namespace zarn::utils {

namespace {

constexpr std::size_t kTypicalLength = 700;  // of one stream

const char* ToText(bool value) { return value ? "true" : "false"; }

void AddStream(std::string& text, CZARNStreamMetrics& stream) {
  text += "{\"stream\":" + std::to_string(stream.number);
  text += ",\"transport\":" + Json::valueToQuotedString(stream.transport.c_str());
  text += stream.isClient ? ",\"role\":\"client\"" : ",\"role\":\"accepted\"";
  text += ",\"peer\":" + Json::valueToQuotedString(stream.peer.c_str());
  text += ",\"local\":" + Json::valueToQuotedString(stream.local.c_str());
  text.append(",\"connected\":").append(ToText(stream.isConnected));
  for (const MetricsField& field : kMetricsFields)
    text.append(",\"").append(field.name).append("\":").append(std::to_string(field.at(stream)));
  text += ",\"last_reason\":" + std::to_string(stream.counters.lastDisconnectReason) + "}\n";
}

}  // namespace

// Written by hand: a tree of values for thousands of streams would keep the loop for long.
std::string ToJson(CZARNMetrics metrics) {
  const std::size_t shown = std::min(metrics.streams.size(), kMaxStreamsShown);
  std::string text;
  text.reserve(200 + shown * kTypicalLength);
  text += "{\"format\":1,\"pid\":" + std::to_string(::getpid());
  text.append(",\"complete\":").append(ToText(metrics.isComplete));
  text += ",\"omitted\":" + std::to_string(metrics.streams.size() - shown);
  text += ",\"streams\":" + std::to_string(shown) + "}\n";
  for (std::size_t i = 0; i < shown; ++i) AddStream(text, metrics.streams[i]);
  return text;
}

}  // namespace zarn::utils
