// ClientCommand.h - what the subcommands that talk to one peer have in common.
#pragma once

#include <chrono>
#include <memory>
#include <string>

#include "CommandLine.h"
#include "Link.h"
#include "Loop.h"
#include "Output.h"

namespace zarn::tool {

// Connects, runs the loop until the subclass calls Finish, and prints the summary. The peer must be
// there within the timeout for the first time, else there is none; what happens later is the
// subclass's business.
class ClientCommand : private ClientSink {
 public:
  explicit ClientCommand(const ClientOptions& options);
  virtual ~ClientCommand() = default;
  ClientCommand(const ClientCommand&) = delete;
  ClientCommand& operator=(const ClientCommand&) = delete;

  int Run();  // once; gives the exit code

 protected:
  using Clock = std::chrono::steady_clock;

  virtual void Begin() = 0;  // connected for the first time
  virtual void Lost(const std::string& reason) = 0;
  virtual void Back(double /*secondsAway*/) {}
  virtual void Received(const Message& message) = 0;
  virtual void Room() {}
  virtual void Interrupted() = 0;       // calls Finish; also before Begin
  virtual int Summarise(int code) = 0;  // after Begin or Interrupted; gives the exit code

  bool IsUp() const { return up_; }
  double GetTimeout() const { return options_.timeout; }
  std::string GetUrl() const { return options_.endpoint.GetUrl(); }
  const std::string& GetPeerName() const { return options_.endpoint.address; }
  ClientLink& GetLink() { return *link_; }
  Loop& GetLoop() { return loop_; }
  Output& GetOutput() { return output_; }
  void Finish(int code) { loop_.Finish(code); }  // what the peer does then is not told

 private:
  void OnUp() override;
  void OnDown(long reason) override;
  void OnMessage(const Message& message) override;
  void OnRoom() override;
  void GiveUp();
  void Interrupt();

  const ClientOptions options_;
  Output output_;
  Loop loop_;
  std::unique_ptr<ClientLink> link_;
  Timer giveUp_;
  std::string lastReason_ = "no answer to the connect";
  bool up_ = false;
  bool begun_ = false;
  bool interrupted_ = false;
  bool heard_ = false;  // the peer has sent something
  Clock::time_point lostAt_;
};

double SecondsSince(std::chrono::steady_clock::time_point start);

}  // namespace zarn::tool
