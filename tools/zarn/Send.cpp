// Send.cpp - zarn send: one message, or one for each line of standard input, and the answers.
#include <CLI/App.hpp>
#include <CLI/Validators.hpp>
#include <limits>
#include <memory>
#include <optional>

#include "ClientCommand.h"
#include "LineReader.h"
#include "StoreBytes.h"

namespace zarn::tool {

namespace {

constexpr std::size_t kMaxPayload = 65523;                // payload of one message
constexpr std::size_t kMaxQueued = std::size_t{1} << 20;  // of what the peer has not taken yet
constexpr double kDrainPause = 0.002;                     // seconds between looks at the queue

struct SendOptions {
  ClientOptions client;
  std::uint16_t type = 0;
  std::uint32_t tag = 0;
  std::string data;
  std::string file;
  std::string lines;  // "-": one message for each line of standard input
  bool full = false;
  std::uint64_t replies = 0;
};

class Send final : public ClientCommand {
 public:
  Send(const SendOptions& options, std::optional<std::string> message)
      : ClientCommand(options.client),
        options_(options),
        message_(std::move(message)),
        drain_([this] { CheckDone(); }),
        patience_([this] { OutOfPatience(); }) {}

 private:
  void Begin() override;
  void Lost(const std::string& reason) override;
  void Received(const Message& message) override;
  void Room() override { SendLines(); }
  void Interrupted() override;
  int Summarise(int code) override;

  void SendLines();
  bool SendOne(std::string_view data);
  bool IsFull() { return GetLink().GetQueueLength() >= kMaxQueued; }
  void AllSent();
  void AwaitPeer();
  void CheckDone();
  void OutOfPatience();
  void BePatient() {
    if (GetTimeout() > 0) patience_.Once(GetTimeout());
  }

  const SendOptions options_;
  const std::optional<std::string> message_;  // nothing: lines
  std::unique_ptr<LineReader> reader_;
  Timer drain_;
  Timer patience_;
  bool allSent_ = false;
  std::uint64_t sent_ = 0;
  std::uint64_t bytes_ = 0;
  std::uint64_t skipped_ = 0;
  std::uint64_t replies_ = 0;
  std::uint64_t left_ = 0;  // undelivered when that was last looked at
};

void Send::Begin() {
  if (message_) {
    if (SendOne(*message_)) AllSent();
    return;
  }
  reader_ = std::make_unique<LineReader>(kMaxPayload,
                                         [this] { GetLoop().Post([this] { SendLines(); }); });
}

// Stops while much is queued; the link says when there is room again. The peer has to take
// something meanwhile, but need not while it is the input that is waited for.
void Send::SendLines() {
  if (reader_ == nullptr || allSent_ || IsFull()) return;
  drain_.Cancel();
  patience_.Cancel();
  while (IsUp() && !IsFull()) {
    const std::optional<Line> line = reader_->Take();
    if (!line) break;
    if (line->tooLong) {
      Complain("line {} is longer than {} bytes and was not sent", line->number, kMaxPayload);
      ++skipped_;
    } else if (!SendOne(line->text)) {
      return;
    }
  }
  if (!reader_->IsAtEnd()) {
    if (IsFull()) AwaitPeer();
    return;
  }
  if (const int error = reader_->GetError(); error != 0) {
    Complain("standard input: {}", std::strerror(error));
    return Finish(kFailed);
  }
  AllSent();
}

bool Send::SendOne(std::string_view data) {
  const keelbase::AWResult result = GetLink().Send({options_.type, options_.tag, data});
  if (result == keelbase::AW_OK) {
    ++sent_;
    bytes_ += data.size();
    return true;
  }
  Complain("{}: cannot send: {}", GetUrl(), DescribeReason(static_cast<long>(result)));
  Finish(kFailed);
  return false;
}

void Send::AllSent() {
  allSent_ = true;
  AwaitPeer();
}

void Send::AwaitPeer() {
  left_ = GetLink().GetUndelivered();
  drain_.Every(kDrainPause);
  BePatient();
}

// Done is: all is on its way for certain, or has arrived, and all answers are there. A slow peer is
// waited for as long as it takes something.
void Send::CheckDone() {
  const std::uint64_t left = GetLink().GetUndelivered();
  if (left < left_) BePatient();
  left_ = left;
  if (left != 0 || !allSent_) return;
  drain_.Cancel();
  if (replies_ >= options_.replies) Finish(kDone);
}

void Send::Received(const Message& message) {
  if (replies_ >= options_.replies) return;
  ++replies_;
  GetOutput().PrintMessage(GetPeerName(), message, options_.full);
  if (!allSent_) return;
  BePatient();
  CheckDone();
}

void Send::OutOfPatience() {
  if (left_ != 0) {
    Complain("{}: the peer takes nothing: {} left after {:g} s", GetUrl(),
             FormatBytes(static_cast<double>(left_)), GetTimeout());
  } else {
    Complain("{}: {} of {} answers within {:g} s", GetUrl(), replies_, options_.replies,
             GetTimeout());
  }
  Finish(kFailed);
}

void Send::Lost(const std::string& reason) {
  Complain("{}: peer gone after {} messages and {} answers: {}", GetUrl(), sent_, replies_, reason);
  Finish(kFailed);
}

void Send::Interrupted() {
  Complain("interrupted");
  Finish(kFailed);
}

int Send::Summarise(int code) {
  drain_.Cancel();
  patience_.Cancel();
  reader_ = nullptr;
  GetOutput().Text("messages sent {} ({}), answers {}", sent_,
                   FormatBytes(static_cast<double>(bytes_)), replies_);
  Json::Value object;
  object["event"] = "summary";
  object["sent"] = Json::UInt64(sent_);
  object["bytes"] = Json::UInt64(bytes_);
  object["skipped"] = Json::UInt64(skipped_);
  object["replies"] = Json::UInt64(replies_);
  GetOutput().Object(object);
  return code == kDone && skipped_ != 0 ? kFailed : code;
}

int RunSend(const SendOptions& options, bool hasData, bool hasFile) {
  std::optional<std::string> message;
  if (hasData) message = options.data;
  if (hasFile) {
    message = ReadBytes(options.file, kMaxPayload + 1);
    if (!message) return kFailed;
  }
  if (message && message->size() > kMaxPayload) {
    const std::string size = hasFile ? "more" : fmt::format("{}", message->size());
    Complain("{} has {} bytes; a message holds {} at most",
             hasFile ? "'" + Escape(options.file) + "'" : "the data", size, kMaxPayload);
    return kFailed;
  }
  return Send(options, std::move(message)).Run();
}

}  // namespace

void AddSend(CLI::App& app, Action& action) {
  auto options = std::make_shared<SendOptions>();
  CLI::App& command = *app.add_subcommand("send", "send messages and print the answers");
  AddClientOptions(command, options->client);
  AddNumber(command, "--type", options->type, 0, 65535, "type of the messages");
  AddNumber(command, "--tag", options->tag, 0, 4294967295, "tag of the messages");
  auto* data = command.add_option("--data", options->data, "send this text")
                   ->type_name("TEXT")
                   ->group(kExactlyOneOrDash);
  auto* file =
      command
          .add_option("--file", options->file, "send what the file holds; '-' is standard input")
          ->check(IsNotEmpty())
          ->type_name("FILE")
          ->group(kExactlyOneOrDash);
  auto* lines =
      command.add_option(kDash, options->lines, "send each line of standard input as a message")
          ->type_name("")
          ->group(kExactlyOneOrDash);
  AddNumber(command, "--replies", options->replies, 0, kUnlimited,
            "wait for that many answers and print them");
  command.add_flag("--full", options->full, "print long answers in full");
  SetExamples(command,
              "  zarn send ipc://1_2 --type 7 --data hello --replies 1\n"
              "  tail -f some.log | zarn send ipc://1_2 --as 3_4 --type 7 -");
  command.callback([options, data, file, lines, &command, &action] {
    if (lines->count() != 0 && options->lines != "-")
      throw CLI::ValidationError(
          "what is sent stands in --data TEXT or --file FILE, or is '-' for the lines of standard "
          "input; '" +
          options->lines + "' is none of these");
    RequireOne(command);
    action = [options, hasData = data->count() != 0, hasFile = file->count() != 0] {
      return RunSend(*options, hasData, hasFile);
    };
  });
}

}  // namespace zarn::tool
