// Ping.cpp - zarn ping: round trips to a peer that sends everything back.
#include <CLI/App.hpp>
#include <CLI/Validators.hpp>
#include <algorithm>
#include <chrono>
#include <deque>
#include <memory>

#include "ClientCommand.h"
#include "Latency.h"

namespace zarn::tool {

namespace {

constexpr std::size_t kMaxOutstanding = 65536;  // the oldest counts as lost beyond that
constexpr double kAwayInterval = 1;             // seconds between two tries while the peer is away

struct PingOptions {
  ClientOptions client;
  std::uint64_t count = 0;  // 0: until interrupted
  std::uint32_t size = 56;
  double interval = 1;
  std::uint32_t spin = 0;
  std::uint16_t type = 0;
  bool quiet = false;
};

class Ping final : public ClientCommand {
 public:
  explicit Ping(const PingOptions& options);

 private:
  struct Probe {
    Clock::time_point sentAt;
    bool settled;  // answered or lost
  };

  void Begin() override;
  void Lost(const std::string& reason) override;
  void Back(double secondsAway) override;
  void Received(const Message& message) override;
  void Interrupted() override { Finish(kDone); }
  int Summarise(int code) override;

  bool IsBackToBack() const { return options_.interval <= 0; }
  bool AllSent() const { return options_.count != 0 && sent_ == options_.count; }
  void Next();
  void SendProbe();
  void Answered(std::uint32_t sequence, Probe& probe);
  void Lose(std::size_t index);
  void DropSettled();
  void Expire();
  void FinishIfDone();

  void PrintReply(std::uint32_t sequence, double microseconds);
  void PrintLoss(std::uint32_t sequence);
  void PrintInterval();
  void PrintState(const char* event, const std::string& text, double secondsAway);

  const PingOptions options_;
  const std::string payload_;
  Timer next_;
  Timer expire_;
  Timer report_;
  Clock::time_point startedAt_ = Clock::now();

  std::deque<Probe> probes_;  // sent, from the oldest on that is not settled
  std::uint64_t first_ = 0;   // sequence number of the front; the tag is its low 32 bits
  std::uint64_t sent_ = 0;
  std::uint64_t lost_ = 0;
  std::uint64_t late_ = 0;
  std::uint64_t altered_ = 0;
  std::unique_ptr<Latency> all_ = std::make_unique<Latency>();
  std::unique_ptr<Latency> recent_ = std::make_unique<Latency>();
  std::uint64_t recentLost_ = 0;
};

std::string MakePayload(std::uint32_t size) {
  std::string payload(size, '\0');
  for (std::size_t i = 0; i < payload.size(); ++i) payload[i] = static_cast<char>(i & 0xff);
  return payload;
}

Ping::Ping(const PingOptions& options)
    : ClientCommand(options.client),
      options_(options),
      payload_(MakePayload(options.size)),
      next_([this] { SendProbe(); }),
      expire_([this] { Expire(); }),
      report_([this] { PrintInterval(); }) {
  GetLoop().SetSpin(options.spin);
}

// --- sending ---

void Ping::Begin() {
  startedAt_ = Clock::now();
  GetOutput().Text("ping {}: {} bytes", GetUrl(), options_.size);
  if (GetTimeout() > 0) expire_.Every(std::clamp(GetTimeout() / 10, 0.001, 0.1));
  if (IsBackToBack()) {
    if (!options_.quiet) report_.Every(1);
  } else {
    next_.Every(options_.interval);
  }
  SendProbe();
}

// Back to back, one follows the other; otherwise the timer ticks whatever happens to the others.
void Ping::Next() {
  if (IsBackToBack() && !AllSent()) {
    if (IsUp()) {
      SendProbe();
    } else {
      next_.Once(kAwayInterval);
    }
  }
  FinishIfDone();
}

void Ping::SendProbe() {
  if (AllSent()) return next_.Cancel();
  if (probes_.size() == kMaxOutstanding) Lose(0);
  const auto sequence = static_cast<std::uint32_t>(first_ + probes_.size());
  probes_.push_back({Clock::now(), false});
  ++sent_;
  if (GetLink().Send({options_.type, sequence, payload_}) == keelbase::AW_OK) return;
  Lose(probes_.size() - 1);
  if (IsBackToBack() && !AllSent()) next_.Once(kAwayInterval);
  FinishIfDone();
}

// --- answers ---

void Ping::Received(const Message& message) {
  if (message.type != options_.type) return;
  const std::uint32_t index = message.tag - static_cast<std::uint32_t>(first_);
  if (index >= probes_.size() || probes_[index].settled) {
    ++late_;
    return;
  }
  if (message.data != payload_) ++altered_;
  Answered(message.tag, probes_[index]);
  Next();
}

void Ping::Answered(std::uint32_t sequence, Probe& probe) {
  const Clock::duration took = Clock::now() - probe.sentAt;
  probe.settled = true;
  all_->Add(took);
  if (IsBackToBack()) {
    recent_->Add(took);
  } else if (!options_.quiet) {
    PrintReply(sequence, std::chrono::duration<double, std::micro>(took).count());
  }
  DropSettled();
}

void Ping::DropSettled() {
  while (!probes_.empty() && probes_.front().settled) {
    probes_.pop_front();
    ++first_;
  }
}

void Ping::Lose(std::size_t index) {
  ++lost_;
  ++recentLost_;
  if (!options_.quiet && !IsBackToBack()) PrintLoss(static_cast<std::uint32_t>(first_ + index));
  probes_[index].settled = true;
  DropSettled();
}

void Ping::Expire() {
  const auto limit = Clock::now() - std::chrono::duration<double>(GetTimeout());
  const std::uint64_t lostBefore = lost_;
  while (!probes_.empty() && probes_.front().sentAt < limit) Lose(0);
  if (lost_ != lostBefore) Next();
}

void Ping::FinishIfDone() {
  if (AllSent() && probes_.empty()) Finish(kDone);
}

// --- the peer ---

void Ping::Lost(const std::string& reason) {
  PrintState("gone", "peer gone: " + reason, 0);
  while (!probes_.empty()) Lose(0);
  Next();
}

void Ping::Back(double secondsAway) {
  PrintState("back", fmt::format("connected again after {:.1f} s", secondsAway), secondsAway);
  if (!IsBackToBack()) return;
  next_.Cancel();
  SendProbe();
}

// --- printing ---

void Ping::PrintReply(std::uint32_t sequence, double microseconds) {
  GetOutput().Text("{} bytes from {}: seq={} time={:.1f} us", options_.size, GetPeerName(),
                   sequence, microseconds);
  if (!GetOutput().IsJson()) return;
  Json::Value object;
  object["event"] = "reply";
  object["seq"] = sequence;
  object["us"] = microseconds;
  GetOutput().Object(object);
}

void Ping::PrintLoss(std::uint32_t sequence) {
  GetOutput().Text("no answer from {}: seq={}", GetPeerName(), sequence);
  if (!GetOutput().IsJson()) return;
  Json::Value object;
  object["event"] = "lost";
  object["seq"] = sequence;
  GetOutput().Object(object);
}

void Ping::PrintInterval() {
  GetOutput().Text("{} round trips, {} lost, p50 {:.1f} us, p99 {:.1f} us", recent_->GetCount(),
                   recentLost_, recent_->GetPercentile(50), recent_->GetPercentile(99));
  Json::Value object;
  object["event"] = "interval";
  object["received"] = Json::UInt64(recent_->GetCount());
  object["lost"] = Json::UInt64(recentLost_);
  object["p50_us"] = recent_->GetPercentile(50);
  object["p99_us"] = recent_->GetPercentile(99);
  GetOutput().Object(object);
  *recent_ = Latency();
  recentLost_ = 0;
}

void Ping::PrintState(const char* event, const std::string& text, double secondsAway) {
  if (options_.quiet) return;
  GetOutput().Text("{}", text);
  Json::Value object;
  object["event"] = event;
  object["text"] = text;
  if (secondsAway > 0) object["away_s"] = secondsAway;
  GetOutput().Object(object);
}

// What was still under way counts neither as received nor as lost.
int Ping::Summarise(int code) {
  const std::uint64_t received = all_->GetCount();
  const std::uint64_t settled = received + lost_;
  const double percent =
      settled == 0 ? 0 : 100 * static_cast<double>(lost_) / static_cast<double>(settled);
  const double seconds = SecondsSince(startedAt_);
  Output& output = GetOutput();
  output.Text("--- {} ---", GetUrl());
  output.Text("{} sent, {} received, {} lost ({:.3g} %), {:.1f} s", sent_, received, lost_, percent,
              seconds);
  if (late_ != 0) output.Text("{} answers came late or twice", late_);
  if (altered_ != 0) output.Text("{} answers were altered on the way", altered_);
  if (received != 0)
    output.Text(
        "round trip in us: min {:.1f}, mean {:.1f}, p50 {:.1f}, p90 {:.1f}, p99 {:.1f}, "
        "p99.9 {:.1f}, max {:.1f}",
        all_->GetMin(), all_->GetMean(), all_->GetPercentile(50), all_->GetPercentile(90),
        all_->GetPercentile(99), all_->GetPercentile(99.9), all_->GetMax());
  Json::Value object;
  object["event"] = "summary";
  object["sent"] = Json::UInt64(sent_);
  object["received"] = Json::UInt64(received);
  object["lost"] = Json::UInt64(lost_);
  object["late"] = Json::UInt64(late_);
  object["altered"] = Json::UInt64(altered_);
  object["seconds"] = seconds;
  AddRoundTrips(object, *all_);
  output.Object(object);
  if (code == kDone && received == 0)
    Complain("{}",
             lost_ == 0
                 ? "interrupted before there was an answer"
                 : "no answer at all: does the peer send everything back, as zarn serve --echo?");
  return code == kDone && (received == 0 || altered_ != 0) ? kFailed : code;
}

}  // namespace

void AddPing(CLI::App& app, Action& action) {
  auto options = std::make_shared<PingOptions>();
  CLI::App& command = *app.add_subcommand(
      "ping", "measure round trips to a peer that sends everything back, as zarn serve --echo");
  AddClientOptions(command, options->client);
  AddNumber(command, "-c,--count", options->count, 0, kUnlimited,
            "send that many; 0 until interrupted");
  AddNumber(command, "-s,--size", options->size, 0, 65523, "bytes in each message")
      .type_name("BYTES");
  AddSeconds(command, "-i,--interval", options->interval, 0, 86400,
             "time from one message to the next; 0: the next follows the answer at once, and one "
             "line a second tells how it goes");
  AddNumber(command, "--spin", options->spin, 0, 1000000,
            "look for an answer that long before sleeping")
      .type_name("US");
  AddNumber(command, "--type", options->type, 0, 65535, "type of the messages");
  command.add_flag("-q,--quiet", options->quiet, "print the summary only");
  SetExamples(command, "  zarn ping ipc://1_2 -c 10 -i 0.2 -s 1024");
  command.callback([options, &action] { action = [options] { return Ping(*options).Run(); }; });
}

}  // namespace zarn::tool
