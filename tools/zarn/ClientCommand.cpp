// ClientCommand.cpp - see ClientCommand.h.
#include "ClientCommand.h"

namespace zarn::tool {

ClientCommand::ClientCommand(const ClientOptions& options)
    : options_(options),
      output_(options.json),
      loop_([this] { Interrupt(); }),
      giveUp_([this] { GiveUp(); }) {
  output_.SetHooks([this] { loop_.Post([this] { output_.Flush(); }); },
                   [this] { loop_.Finish(kFailed); });
}

int ClientCommand::Run() {
  const Endpoint& endpoint = options_.endpoint;
  link_ = endpoint.scheme->makeClient(endpoint, options_.own, *this);
  if (const std::string problem = link_->Start(); !problem.empty()) {
    Complain("{}", problem);
    return kFailed;
  }
  if (options_.timeout > 0) giveUp_.Once(options_.timeout);
  int code = loop_.Run();
  if (begun_ || interrupted_) code = Summarise(code);
  link_->Close();
  return output_.Flush() ? code : kFailed;
}

void ClientCommand::OnUp() {
  up_ = true;
  giveUp_.Cancel();
  if (begun_) return Back(SecondsSince(lostAt_));
  begun_ = true;
  Begin();
}

// Comes for every attempt that fails, too.
void ClientCommand::OnDown(long reason) {
  lastReason_ = link_->Explain(reason);
  const bool wasUp = up_;
  up_ = false;
  if (!heard_ && link_->IsFinal(reason)) {
    Complain("{}: {}", GetUrl(), lastReason_);
    return Finish(kFailed);
  }
  if (!wasUp || loop_.IsFinished()) return;
  lostAt_ = Clock::now();
  Lost(lastReason_);
}

void ClientCommand::OnMessage(const Message& message) {
  heard_ = true;
  if (!loop_.IsFinished()) Received(message);
}

void ClientCommand::OnRoom() {
  if (!loop_.IsFinished()) Room();
}

void ClientCommand::GiveUp() {
  Complain("{}: not reachable within {:g} s: {}", GetUrl(), options_.timeout, lastReason_);
  Finish(kUnreachable);
}

void ClientCommand::Interrupt() {
  interrupted_ = true;
  Interrupted();
}

double SecondsSince(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

}  // namespace zarn::tool
