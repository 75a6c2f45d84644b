// Serve.cpp - zarn serve: an endpoint that prints, and may send back, what it gets.
#include <CLI/App.hpp>
#include <memory>

#include "CommandLine.h"
#include "EndpointFiles.h"
#include "Link.h"
#include "Loop.h"
#include "Output.h"
#include "Root.h"
#include "zarn/utils/CZARNMetrics.h"

namespace zarn::tool {

namespace {

struct ServeOptions {
  Endpoint endpoint;
  bool echo = false;
  bool quiet = false;
  bool full = false;
  bool json = false;
  std::uint64_t maxQueue = std::uint64_t{64} << 20;
};

class Serve final : private ServerSink {
 public:
  explicit Serve(const ServeOptions& options)
      : options_(options),
        output_(options.json),
        loop_([this] { loop_.Finish(kDone); }),
        watch_([this] { Watch(); }) {
    output_.SetHooks([this] { loop_.Post([this] { output_.Flush(); }); },
                     [this] { loop_.Finish(kFailed); });
  }

  int Run() {
    const Endpoint& endpoint = options_.endpoint;
    link_ = endpoint.scheme->makeServer(endpoint, *this);
    if (const std::string problem = link_->Start(); !problem.empty()) {
      Complain("{}: cannot listen: {}", endpoint.GetUrl(), problem);
      return kFailed;
    }
    ShowMetrics();
    PrintStart();
    watch_.Every(1);
    const int code = loop_.Run();
    link_->Stop();
    PrintSummary();
    return output_.Flush() ? code : kFailed;
  }

 private:
  void OnPeer(ServerPeer& peer) override;
  void OnPeerRefused(long reason) override;
  void OnPeerGone(ServerPeer& peer, long reason) override;
  void OnMessage(ServerPeer& peer, const Message& message) override;
  void OnListenFailed(long reason) override;
  void SendBack(ServerPeer& peer, const Message& message);
  void Watch();
  void ShowMetrics();
  void PrintStart();
  void PrintSummary();

  const ServeOptions options_;
  Output output_;
  Loop loop_;
  std::unique_ptr<ServerLink> link_;
  Timer watch_;
  bool lostEndpoint_ = false;
  std::uint64_t clients_ = 0;
  std::uint64_t messages_ = 0;
  std::uint64_t bytes_ = 0;
  std::uint64_t dropped_ = 0;
  std::uint64_t refused_ = 0;
};

void Serve::OnPeer(ServerPeer& peer) {
  ++clients_;
  if (options_.quiet) return;
  const keelbase::CAWPeerCredentials credentials = peer.GetCredentials();
  const bool known = credentials.processId != 0;
  const std::string subject = Escape(peer.GetSubject());
  if (!output_.IsJson() && !known)
    return output_.Text("{} connected{}{}", peer.GetName(), subject.empty() ? "" : ": ", subject);
  if (!output_.IsJson())
    return output_.Text("{} connected: process {} ({}), user {}", peer.GetName(),
                        credentials.processId, Escape(GetProgramName(credentials.processId)),
                        GetUserName(credentials.userId));
  Json::Value object;
  object["event"] = "connected";
  object["peer"] = peer.GetName();
  object["pid"] = known ? Json::Value(credentials.processId) : Json::Value();
  object["user"] = known ? Json::Value(GetUserName(credentials.userId)) : Json::Value();
  if (!subject.empty()) object["certificate"] = subject;
  output_.Object(object);
}

void Serve::OnPeerRefused(long reason) {
  ++refused_;
  if (options_.quiet) return;
  const std::string why = DescribeReason(reason);
  output_.Text("somebody refused: {}", why);
  Json::Value object;
  object["event"] = "refused";
  object["reason"] = why;
  output_.Object(object);
}

void Serve::OnPeerGone(ServerPeer& peer, long reason) {
  if (options_.quiet) return;
  const std::string why = reason == 0 ? "closed" : DescribeReason(reason);
  if (!output_.IsJson())
    return output_.Text("{} gone: {}, {} messages, {}{}", peer.GetName(), why, peer.GetMessages(),
                        FormatBytes(static_cast<double>(peer.GetBytes())),
                        peer.GetMalformed() == 0 ? "" : ", stopped at a malformed frame");
  Json::Value object;
  object["event"] = "gone";
  object["peer"] = peer.GetName();
  object["reason"] = why;
  object["messages"] = Json::UInt64(peer.GetMessages());
  object["bytes"] = Json::UInt64(peer.GetBytes());
  object["malformed"] = peer.GetMalformed() != 0;
  output_.Object(object);
}

void Serve::OnMessage(ServerPeer& peer, const Message& message) {
  ++messages_;
  bytes_ += message.data.size();
  if (!options_.quiet) output_.PrintMessage(peer.GetName(), message, options_.full);
  if (options_.echo) SendBack(peer, message);
}

void Serve::SendBack(ServerPeer& peer, const Message& message) {
  const keelbase::AWResult result = peer.Send(message);
  const std::size_t waiting = peer.GetQueueLength();
  if (result == keelbase::AW_OK && waiting <= options_.maxQueue) return;
  ++dropped_;
  const std::string why =
      result == keelbase::AW_OK
          ? fmt::format("it does not read, {} wait for it",
                        FormatBytes(static_cast<double>(waiting)))
          : fmt::format("cannot send: {}", DescribeReason(static_cast<long>(result)));
  Complain("{} dropped: {}", peer.GetName(), why);
  Json::Value object;
  object["event"] = "dropped";
  object["peer"] = peer.GetName();
  object["reason"] = why;
  object["waiting"] = Json::UInt64(waiting);
  if (!options_.quiet) output_.Object(object);
  peer.Drop();
}

void Serve::OnListenFailed(long reason) {
  Complain("{}: cannot listen: {}", options_.endpoint.GetUrl(), link_->Explain(reason));
  loop_.Finish(kFailed);
}

// The clients that there are do not need the endpoint file, so the loss of it is told and no more.
void Serve::Watch() {
  const std::string problem = link_->Check();
  if (!problem.empty() && !lostEndpoint_) Complain("{}: {}", options_.endpoint.GetUrl(), problem);
  lostEndpoint_ = !problem.empty();
}

// To zarn stat. A server without an install root, which ports do not need, does without.
void Serve::ShowMetrics() {
  if (!CheckRoot().empty()) return;
  const auto result = static_cast<long>(utils::ZARNEnableMetrics());
  if (result != 0) Complain("zarn stat will not see this server: {}", DescribeReason(result));
}

void Serve::PrintStart() {
  if (options_.quiet) return;
  const std::string url = options_.endpoint.GetUrl();
  output_.Text("listening at {}{}", url, options_.echo ? ", sending everything back" : "");
  Json::Value object;
  object["event"] = "listening";
  object["url"] = url;
  object["echo"] = options_.echo;
  output_.Object(object);
}

void Serve::PrintSummary() {
  output_.Text("clients {}, messages {}, payload {}, dropped {}{}", clients_, messages_,
               FormatBytes(static_cast<double>(bytes_)), dropped_,
               refused_ == 0 ? "" : fmt::format(", refused {}", refused_));
  Json::Value object;
  object["event"] = "summary";
  object["clients"] = Json::UInt64(clients_);
  object["messages"] = Json::UInt64(messages_);
  object["bytes"] = Json::UInt64(bytes_);
  object["dropped"] = Json::UInt64(dropped_);
  if (options_.endpoint.scheme->isSecured) object["refused"] = Json::UInt64(refused_);
  output_.Object(object);
}

}  // namespace

void AddServe(CLI::App& app, Action& action) {
  auto options = std::make_shared<ServeOptions>();
  CLI::App& command =
      *app.add_subcommand("serve", "accept any number of clients and print each message");
  AddUrl(command, options->endpoint);
  AddServerSecurity(command, options->endpoint);
  command.add_flag("--echo", options->echo, "send each message back to its sender");
  AddNumber(command, "--max-queue", options->maxQueue, 0, kUnlimited,
            "drop a client for which more than that waits")
      .type_name("BYTES")
      ->needs("--echo");
  command.add_flag("--full", options->full, "print long messages in full");
  command.add_flag("-q,--quiet", options->quiet, "print the summary only");
  AddJson(command, options->json);
  SetExamples(command, "  zarn serve ipc://1_2 --echo --quiet");
  command.callback([options, &action] { action = [options] { return Serve(*options).Run(); }; });
}

}  // namespace zarn::tool
