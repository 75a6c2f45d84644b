// Bench.cpp - zarn bench: round trips and throughput over a range of sizes, against a peer that
// sends everything back.
#include <CLI/App.hpp>
#include <CLI/Validators.hpp>
#include <algorithm>
#include <chrono>
#include <memory>
#include <optional>
#include <vector>

#include "ClientCommand.h"
#include "Latency.h"
#include "Progress.h"

namespace zarn::tool {

namespace {

constexpr std::size_t kMaxInFlight = std::size_t{4} << 20;  // bytes, whatever the window is
constexpr double kWatchInterval = 0.1;                      // seconds

struct BenchOptions {
  ClientOptions client;
  std::vector<std::uint32_t> sizes = {0, 64, 256, 1024, 4096, 16384, 65523};
  double seconds = 0.5;
  std::uint32_t window = 256;
  std::uint32_t spin = 0;
  std::uint16_t type = 0;
};

struct Row {
  std::uint32_t size = 0;
  std::unique_ptr<Latency> roundTrips = std::make_unique<Latency>();
  double roundTripsPerSecond = 0;
  std::uint32_t window = 0;  // messages under way at once in the second measurement
  double messagesPerSecond = 0;
  bool complete = false;
};

// Two measurements for each size: one message under way at a time, and a window of them.
class Bench final : public ClientCommand {
 public:
  explicit Bench(const BenchOptions& options)
      : ClientCommand(options.client), options_(options), watch_([this] { Watch(); }) {
    GetLoop().SetSpin(options.spin);
  }

 private:
  void Begin() override;
  void Lost(const std::string& reason) override;
  void Received(const Message& message) override;
  void Interrupted() override;
  int Summarise(int code) override;

  void StartRow();
  void StartMeasurement(std::uint32_t window);
  void EndMeasurement();
  bool SendOne();
  bool IsPipelined() const { return rows_.back().window != 0; }
  void Watch();
  void PrintRow(const Row& row);
  void PrintTable();

  const BenchOptions options_;
  Progress progress_;
  Timer watch_;
  std::vector<Row> rows_;

  // The measurement under way. Messages carry its number as their tag.
  std::string payload_;
  std::uint32_t number_ = 0;
  std::uint32_t underWay_ = 0;
  std::uint64_t answers_ = 0;
  Clock::time_point startedAt_;
  Clock::time_point lastAnswer_;  // with one message under way also when that was sent
  Clock::time_point endAt_;
};

void Bench::Begin() {
  GetOutput().Text("bench {}: {} sizes, {:g} s for each measurement", GetUrl(),
                   options_.sizes.size(), options_.seconds);
  watch_.Every(kWatchInterval);
  StartRow();
}

void Bench::StartRow() {
  if (rows_.size() == options_.sizes.size()) return Finish(kDone);
  rows_.emplace_back().size = options_.sizes[rows_.size()];
  payload_.assign(rows_.back().size, 'z');
  StartMeasurement(1);
}

void Bench::StartMeasurement(std::uint32_t window) {
  ++number_;
  answers_ = 0;
  startedAt_ = lastAnswer_ = Clock::now();
  endAt_ = startedAt_ + std::chrono::duration_cast<Clock::duration>(
                            std::chrono::duration<double>(options_.seconds));
  for (underWay_ = 0; underWay_ < window;)
    if (!SendOne()) return;
}

bool Bench::SendOne() {
  const keelbase::AWResult result = GetLink().Send({options_.type, number_, payload_});
  if (result == keelbase::AW_OK) {
    ++underWay_;
    return true;
  }
  Complain("{}: cannot send: {}", GetUrl(), DescribeReason(static_cast<long>(result)));
  Finish(kFailed);
  return false;
}

// After the end of the measurement what is under way still comes, and counts.
void Bench::Received(const Message& message) {
  if (message.type != options_.type || message.tag != number_ || underWay_ == 0) return;
  if (message.data.size() != payload_.size()) {
    Complain("{}: answered {} bytes with {}: does the peer send everything back?", GetUrl(),
             payload_.size(), message.data.size());
    return Finish(kFailed);
  }
  const auto now = Clock::now();
  if (!IsPipelined()) rows_.back().roundTrips->Add(now - lastAnswer_);
  lastAnswer_ = now;
  ++answers_;
  --underWay_;
  if (now < endAt_) {
    SendOne();
  } else if (underWay_ == 0) {
    EndMeasurement();
  }
}

void Bench::EndMeasurement() {
  Row& row = rows_.back();
  const double seconds = std::chrono::duration<double>(lastAnswer_ - startedAt_).count();
  const double rate = static_cast<double>(answers_) / seconds;
  if (!IsPipelined()) {
    row.roundTripsPerSecond = rate;
    const std::size_t fitting = kMaxInFlight / std::max<std::size_t>(row.size, 1);
    row.window = std::min(options_.window, static_cast<std::uint32_t>(fitting));
    return StartMeasurement(row.window);
  }
  row.messagesPerSecond = rate;
  row.complete = true;
  PrintRow(row);
  StartRow();
}

void Bench::Watch() {
  if (GetTimeout() > 0 && SecondsSince(lastAnswer_) > GetTimeout()) {
    Complain(
        "{}: no answer within {:g} s: does the peer send everything back, as zarn serve --echo?",
        GetUrl(), GetTimeout());
    return Finish(kFailed);
  }
  const double part = std::min(SecondsSince(startedAt_) / options_.seconds, 1.0);
  const double done = static_cast<double>(number_ - 1) + part;
  progress_.Show(
      done / static_cast<double>(2 * options_.sizes.size()),
      fmt::format("{} bytes, {}", rows_.back().size, IsPipelined() ? "throughput" : "round trips"));
}

void Bench::Lost(const std::string& reason) {
  Complain("{}: peer gone: {}", GetUrl(), reason);
  Finish(kFailed);
}

void Bench::Interrupted() {
  Complain("interrupted");
  Finish(kFailed);
}

int Bench::Summarise(int code) {
  progress_.Clear();
  if (!rows_.empty() && !rows_.back().complete) rows_.pop_back();
  PrintTable();
  Json::Value object;
  object["event"] = "summary";
  object["complete"] = code == kDone;
  object["sizes"] = Json::UInt64(rows_.size());
  GetOutput().Object(object);
  return code;
}

double MegabytesPerSecond(const Row& row) {
  return row.messagesPerSecond * static_cast<double>(row.size) / 1e6;
}

void Bench::PrintRow(const Row& row) {
  Json::Value object;
  object["event"] = "result";
  object["size"] = row.size;
  object["round_trips"] = Json::UInt64(row.roundTrips->GetCount());
  object["round_trips_per_s"] = row.roundTripsPerSecond;
  AddRoundTrips(object, *row.roundTrips);
  object["window"] = row.window;
  object["messages_per_s"] = row.messagesPerSecond;
  object["mb_per_s"] = MegabytesPerSecond(row);
  GetOutput().Object(object);
}

void Bench::PrintTable() {
  Output& output = GetOutput();
  output.Text(
      "         |            one at a time: round trip in us            |  a window of them");
  output.Text("{:>8} | {:>8} {:>8} {:>8} {:>8} {:>8} {:>8} | {:>6} {:>10} {:>8}", "bytes", "p50",
              "p90", "p99", "p99.9", "max", "per s", "window", "messages/s", "MB/s");
  for (const Row& row : rows_) {
    const Latency& latency = *row.roundTrips;
    output.Text(
        "{:>8} | {:>8.1f} {:>8.1f} {:>8.1f} {:>8.1f} {:>8.1f} {:>8.0f} | {:>6} {:>10.0f} {:>8.1f}",
        row.size, latency.GetPercentile(50), latency.GetPercentile(90), latency.GetPercentile(99),
        latency.GetPercentile(99.9), latency.GetMax(), row.roundTripsPerSecond, row.window,
        row.messagesPerSecond, MegabytesPerSecond(row));
  }
  output.Text("messages/s and MB/s are those of one way; the other way carries as much at once");
}

}  // namespace

void AddBench(CLI::App& app, Action& action) {
  auto options = std::make_shared<BenchOptions>();
  CLI::App& command = *app.add_subcommand(
      "bench",
      "round trips and throughput over sizes, against a peer as zarn serve --echo --quiet");
  AddClientOptions(command, options->client);
  AddNumber(command, "--sizes", options->sizes, 0, 65523,
            "bytes in each message, separated by commas")
      .delimiter(',')
      ->type_name("BYTES");
  AddSeconds(command, "--seconds", options->seconds, 0.001, 3600,
             "length of each of the two measurements for a size");
  AddNumber(command, "--window", options->window, 1, 65536,
            "messages under way at once, for throughput");
  AddNumber(command, "--spin", options->spin, 0, 1000000,
            "look for an answer that long before sleeping")
      .type_name("US");
  AddNumber(command, "--type", options->type, 0, 65535, "type of the messages");
  SetExamples(command, "  zarn bench ipc://1_2 --sizes 64,1024,65523 --seconds 2");
  command.callback([options, &action] { action = [options] { return Bench(*options).Run(); }; });
}

}  // namespace zarn::tool
