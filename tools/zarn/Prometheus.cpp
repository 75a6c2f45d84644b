// Prometheus.cpp - see Prometheus.h.
#include "Prometheus.h"

#include <fmt/format.h>

#include <iterator>
#include <string_view>

#include "Escape.h"
#include "MetricsFields.h"

namespace zarn::tool {

namespace {

using utils::CZARNStreamMetrics;

// In quotes. Escaped first, so that it is one line of UTF-8 whatever it was.
std::string QuoteLabel(std::string_view value) {
  std::string text = "\"";
  for (const char c : Escape(value)) {
    if (c == '"' || c == '\\') text += '\\';
    text += c;
  }
  return text + '"';
}

std::string LabelProcess(const ProcessMetrics& process) {
  return fmt::format("pid=\"{}\",program={}", process.process, QuoteLabel(process.program));
}

std::string LabelStream(const ProcessMetrics& process, const CZARNStreamMetrics& stream) {
  return fmt::format("{},stream=\"{}\",transport={},role=\"{}\",local={},peer={}",
                     LabelProcess(process), stream.number, QuoteLabel(stream.transport),
                     stream.isClient ? "client" : "accepted", QuoteLabel(stream.local),
                     QuoteLabel(stream.peer));
}

class PrometheusText {
 public:
  explicit PrometheusText(const std::vector<ProcessMetrics>& processes) : processes_(processes) {}

  // `value(stream)` for each stream.
  template <class Value>
  void AddStreams(const std::string& name, const char* type, const char* help, Value value) {
    AddHead(name, type, help);
    for (const ProcessMetrics& process : processes_) {
      for (const CZARNStreamMetrics& stream : process.metrics.streams)
        fmt::format_to(std::back_inserter(text_), "{}{{{}}} {}\n", name,
                       LabelStream(process, stream), value(stream));
    }
  }

  // `value(process)` for each process.
  template <class Value>
  void AddProcesses(const char* name, const char* help, Value value) {
    AddHead(name, "gauge", help);
    for (const ProcessMetrics& process : processes_)
      fmt::format_to(std::back_inserter(text_), "{}{{{}}} {}\n", name, LabelProcess(process),
                     value(process));
  }

  std::string Take() { return std::move(text_); }

 private:
  void AddHead(const std::string& name, const char* type, const char* help) {
    fmt::format_to(std::back_inserter(text_), "# HELP {} {}.\n# TYPE {} {}\n", name, help, name,
                   type);
  }

  const std::vector<ProcessMetrics>& processes_;
  std::string text_;
};

}  // namespace

std::string ToPrometheus(const std::vector<ProcessMetrics>& processes) {
  PrometheusText text(processes);
  text.AddProcesses("zarn_process_complete", "Whether all threads of the process have answered",
                    [](const auto& process) { return process.metrics.isComplete ? 1 : 0; });
  text.AddProcesses("zarn_process_streams_omitted", "Streams that were left out",
                    [](const auto& process) { return process.omitted; });
  text.AddStreams("zarn_stream_connected", "gauge", "Whether the stream has a connection",
                  [](const auto& stream) { return stream.isConnected ? 1 : 0; });
  text.AddStreams("zarn_stream_last_reason", "gauge",
                  "Why the last connection or attempt to connect ended, 0 in order",
                  [](const auto& stream) { return stream.counters.lastDisconnectReason; });
  for (const utils::MetricsField& field : utils::kMetricsFields)
    text.AddStreams(fmt::format("zarn_stream_{}{}", field.name, field.isCounter ? "_total" : ""),
                    field.isCounter ? "counter" : "gauge", field.help,
                    [&field](CZARNStreamMetrics stream) { return field.at(stream); });
  return text.Take();
}

}  // namespace zarn::tool
