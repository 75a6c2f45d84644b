// Stat.cpp - zarn stat: what the streams of processes have done.
#include <fmt/format.h>
#include <unistd.h>

#include <CLI/App.hpp>
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstring>
#include <memory>
#include <optional>
#include <vector>

#include "CommandLine.h"
#include "Endpoint.h"
#include "EndpointFiles.h"
#include "Interruption.h"
#include "Link.h"
#include "MetricsAnswer.h"
#include "MetricsFields.h"
#include "MetricsSocket.h"
#include "Output.h"
#include "Prometheus.h"
#include "Root.h"

namespace zarn::tool {

namespace {

using utils::CZARNStreamMetrics;

struct StatOptions {
  std::string target = "all";
  bool json = false;
  bool prometheus = false;
  bool clean = false;
  double watch = 0;  // seconds; 0: once
  double timeout = 5;
};

// --- which processes ---

int ComplainOfDirectory(const std::string& scheme, int error) {
  Complain("'{}': {}", Escape(GetEndpointDirectory(scheme)), std::strerror(error));
  return kFailed;
}

// The processes that listen at that endpoint, over local IPC and over shared memory. Not kDone,
// after a complaint, when there is none that can be told.
int FindListeners(const std::string& pair, std::vector<pid_t>& found) {
  int code = kUnreachable;
  for (const char* scheme : {"ipc", "shm"}) {
    std::vector<EndpointFile> files;
    if (const int error = ScanEndpoints(scheme, files); error != 0)
      code = ComplainOfDirectory(scheme, error);
    for (const EndpointFile& file : files) {
      const bool known = std::find(found.begin(), found.end(), file.process) != found.end();
      if (file.name == pair && file.process != 0 && !known) found.push_back(file.process);
    }
  }
  if (!found.empty()) return kDone;
  if (code == kUnreachable) Complain("{}: no process is seen to listen there", pair);
  return code;
}

// Those that show their metrics, or those that were named, whether they do or not.
int FindProcesses(const StatOptions& options, std::vector<pid_t>& processes) {
  if (const auto process = ParseProcess(options.target)) {
    processes.push_back(*process);
    return kDone;
  }
  if (options.target != "all") {
    return FindListeners(options.target, processes);
  }
  std::vector<EndpointFile> files;
  int error = ScanEndpoints("stat", files);
  if (error == 0 && options.clean) error = RemoveStale("stat", files);
  if (error != 0) return ComplainOfDirectory("stat", error);
  for (const EndpointFile& file : files)
    if (file.state == EndpointState::listening) processes.push_back(*ParseProcess(file.name));
  return kDone;
}

// --- asking them ---

int AskOne(const StatOptions& options, ProcessMetrics& asked) {
  using std::chrono::steady_clock;
  const auto deadline =
      options.timeout == 0
          ? steady_clock::time_point::max()
          : steady_clock::now() + std::chrono::duration_cast<steady_clock::duration>(
                                      std::chrono::duration<double>(options.timeout));
  std::string answer;
  std::string problem = AskForMetrics(asked.process, deadline, answer);
  int code = kUnreachable;
  if (problem.empty()) {
    problem = ParseMetrics(answer, asked);
    if (!problem.empty()) problem = "its answer is not good: " + problem;
    code = kFailed;
  }
  if (problem.empty()) return kDone;
  if (!IsInterrupted()) Complain("process {}: {}", asked.process, problem);
  return code;
}

// All that answered. One of several that does not is a failure, and no more.
int AskAll(const StatOptions& options, std::vector<ProcessMetrics>& asked) {
  std::vector<pid_t> processes;
  int code = FindProcesses(options, processes);
  for (const pid_t process : processes) {
    ProcessMetrics one;
    one.process = process;
    one.program = GetProgramName(process);
    const int result = AskOne(options, one);
    if (result == kDone) asked.push_back(std::move(one));
    if (result != kDone) code = options.target == "all" ? kFailed : result;
  }
  return code;
}

// --- printing what they answered ---

void PrintStatObjects(Output& output, ProcessMetrics& process) {
  if (!output.IsJson()) return;
  Json::Value object;
  object["event"] = "process";
  object["pid"] = process.process;
  object["program"] = Escape(process.program);
  object["complete"] = process.metrics.isComplete;
  object["omitted"] = Json::UInt64(process.omitted);
  object["streams"] = Json::UInt64(process.metrics.streams.size());
  output.Object(object);
  for (CZARNStreamMetrics& stream : process.metrics.streams) {
    Json::Value shown;
    shown["event"] = "stream";
    shown["pid"] = process.process;
    shown["stream"] = Json::UInt64(stream.number);
    shown["transport"] = Escape(stream.transport);
    shown["role"] = stream.isClient ? "client" : "accepted";
    shown["local"] = Escape(stream.local);
    shown["peer"] = Escape(stream.peer);
    shown["connected"] = stream.isConnected;
    for (const utils::MetricsField& field : utils::kMetricsFields)
      shown[field.name] = Json::UInt64(field.at(stream));
    shown["last_reason"] = Json::Int64(stream.counters.lastDisconnectReason);
    output.Object(shown);
  }
}

std::string DescribeStream(const CZARNStreamMetrics& stream) {
  const auto orDash = [](const std::string& text) { return text.empty() ? "-" : Escape(text); };
  const char* arrow = stream.isClient ? "->" : "<-";
  return fmt::format("{} {} {} {}", Escape(stream.transport), orDash(stream.local), arrow,
                     orDash(stream.peer));
}

std::string DescribeState(const CZARNStreamMetrics& stream) {
  if (stream.isConnected) return "connected";
  const long reason = stream.counters.lastDisconnectReason;
  const bool tried = stream.counters.connects + stream.counters.connectFailures != 0;
  if (!tried) return "connecting";
  return reason == 0 ? "closed" : Escape(DescribeReason(reason));
}

void PrintStatTable(Output& output, const std::vector<ProcessMetrics>& processes) {
  if (processes.empty())
    return output.Text("no process shows its metrics in '{}': those that call ZARNEnableMetrics do",
                       Escape(GetEndpointDirectory("stat")));
  std::size_t width = 6;
  for (const ProcessMetrics& process : processes)
    for (const CZARNStreamMetrics& stream : process.metrics.streams)
      width = std::max(width, DescribeStream(stream).size());
  output.Text("{:>8} {:<{}} {:>11} {:>13} {:>11} {:>13} {:>9} {:>9} {:>8} {:>6} {:>3} {}", "PID",
              "STREAM", width, "SENT", "BYTES", "RECEIVED", "BYTES", "QUEUED", "HIGHEST",
              "CONNECTS", "FAILED", "BAD", "STATE");
  for (const ProcessMetrics& process : processes) {
    output.Text("{:>8} {}: {} streams{}{}", process.process, Escape(process.program),
                process.metrics.streams.size() + process.omitted,
                process.omitted == 0 ? "" : fmt::format(", {} not shown", process.omitted),
                process.metrics.isComplete ? "" : ", one of its threads does not answer");
    for (const CZARNStreamMetrics& stream : process.metrics.streams) {
      const utils::CZARNStreamCounters& counters = stream.counters;
      output.Text("{:>8} {:<{}} {:>11} {:>13} {:>11} {:>13} {:>9} {:>9} {:>8} {:>6} {:>3} {}",
                  process.process, DescribeStream(stream), width, counters.messagesSent,
                  counters.bytesSent, counters.messagesReceived, counters.bytesReceived,
                  stream.sendQueueLength + stream.connection.queuedBytes,
                  counters.sendQueueHighMark, counters.connects, counters.connectFailures,
                  counters.malformedFrames, DescribeState(stream));
    }
  }
}

int ShowOnce(const StatOptions& options, Output& output) {
  std::vector<ProcessMetrics> processes;
  const int code = AskAll(options, processes);
  if (options.prometheus) {
    std::string text = ToPrometheus(processes);
    text.pop_back();  // the output ends the line
    output.Text("{}", text);
  } else {
    for (ProcessMetrics& process : processes) PrintStatObjects(output, process);
    if (code == kDone || !processes.empty()) PrintStatTable(output, processes);
  }
  return output.Flush() ? code : kFailed;
}

int RunStat(const StatOptions& options) {
  if (const std::string problem = CheckRoot(); !problem.empty()) {
    Complain("{}", problem);
    return kFailed;
  }
  CatchInterruptions();
  Output output(options.json);
  int code = ShowOnce(options, output);
  const int pause = static_cast<int>(std::ceil(options.watch * 1000));
  while (pause != 0 && code != kUnreachable && output.Flush() && !IsInterrupted()) {
    if (IsOutputClosed(pause)) return kFailed;
    if (IsInterrupted()) break;
    output.Text("");
    code = ShowOnce(options, output);
  }
  if (!output.Flush()) return kFailed;
  if (!IsInterrupted() || code == kDone) return code;
  if (pause != 0) return kDone;
  Complain("interrupted");
  return kFailed;
}

std::string CheckTarget(const std::string& text) {
  if (text == "all" || ParseProcess(text) || ParsePair(text)) return {};
  return "'" + text + "' is no process number, no endpoint like 1_2, and not 'all'";
}

}  // namespace

void AddStat(CLI::App& app, Action& action) {
  auto options = std::make_shared<StatOptions>();
  CLI::App& command =
      *app.add_subcommand("stat", "what the streams of processes that show it have done");
  command
      .add_option("TARGET", options->target,
                  "the number of a process, the endpoint at which it listens, as 1_2, or all")
      ->check(CLI::Validator(CheckTarget, ""))
      ->capture_default_str();
  AddJson(command, options->json);
  command.add_flag("--prometheus", options->prometheus, "print the text format of Prometheus")
      ->excludes("--json");
  AddSeconds(command, "--watch", options->watch, 0.01, 1e6, "show it again and again")
      .default_str("")
      ->excludes("--prometheus");
  AddSeconds(command, "--timeout", options->timeout, 0, 1e6,
             "how long to wait for the answer of a process; 0 for ever");
  command.add_flag("--clean", options->clean,
                   "remove what killed processes of our own user have left");
  SetExamples(command, "  zarn stat 1_2 --watch 1");
  command.callback([options, &action] {
    if (options->clean && options->target != "all")
      throw CLI::ValidationError("--clean", "looks at all processes, not at one");
    action = [options] { return RunStat(*options); };
  });
}

}  // namespace zarn::tool
