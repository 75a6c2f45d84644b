// bench_mq.cpp - Boost.Interprocess: a message_queue each way.
#include <boost/interprocess/ipc/message_queue.hpp>
#include <filesystem>
#include <memory>
#include <vector>

#include "common/Bench.h"

namespace {

using namespace bench;
using boost::interprocess::message_queue;

constexpr std::size_t kBytes = 2 * 1024 * 1024;  // of a queue, as the rings of the others have

// Both processes know the directory of this run; its last part is unique.
std::string NameOf(const Options& options, const char* which) {
  return std::filesystem::path(options.dir).filename().string() + which;
}

class Queue {
 public:
  // Made by the receiver of the run, which removes it.
  Queue(const Options& options, const char* which, bool make) : name_(NameOf(options, which)) {
    if (make) {
      queue_ = std::make_unique<message_queue>(boost::interprocess::create_only, name_.c_str(),
                                               std::max<std::size_t>(kBytes / options.size, 16),
                                               options.size);
    } else {
      queue_ = std::make_unique<message_queue>(boost::interprocess::open_only, name_.c_str());
    }
    made_ = make;
    buffer_.resize(options.size);
  }
  ~Queue() {
    if (made_) message_queue::remove(name_.c_str());
  }
  Queue(const Queue&) = delete;
  Queue& operator=(const Queue&) = delete;

  void Send(const char* data, std::size_t size) { queue_->send(data, size, 0); }
  std::size_t Receive() {
    message_queue::size_type size = 0;
    unsigned priority = 0;
    queue_->receive(buffer_.data(), buffer_.size(), size, priority);
    return size;
  }
  const char* Data() const { return buffer_.data(); }

 private:
  std::string name_;
  std::unique_ptr<message_queue> queue_;
  bool made_ = false;
  std::vector<char> buffer_;
};

void Receive(const Options& options, const Control& control, Tally& tally) {
  Queue queue(options, "a", true);
  control.SendReady();
  Incoming incoming(options, tally);
  std::size_t size;
  do {
    size = queue.Receive();
  } while (incoming.Take(queue.Data(), size));
  control.SendReport(tally.meter.measured);
  control.WaitForParent();
}

void Send(const Options& options, const Control& control, Sending& sending) {
  Queue queue(options, "a", false);
  sending.Start();
  Outgoing outgoing(options, sending);
  while (outgoing.Next()) queue.Send(outgoing.Message().data(), options.size);
  control.WaitDone();
}

void Echo(const Options& options, const Control& control) {
  Queue asked(options, "a", true);
  Queue answers(options, "b", true);
  control.SendReady();
  for (bool go = true; go;) {
    const std::size_t size = asked.Receive();
    go = GetStamp(asked.Data()).kind != Kind::kLast;
    answers.Send(asked.Data(), size);
  }
  control.WaitForParent();
}

void Ask(const Options& options, const Control&, RoundTrips& trips) {
  Queue asked(options, "a", false);
  Queue answers(options, "b", false);
  while (trips.Next()) {
    asked.Send(trips.Message().data(), options.size);
    const std::size_t size = answers.Receive();
    trips.Take(answers.Data(), size);
  }
}

}  // namespace

int main(int argc, char** argv) { return Main(argc, argv, {"mq", Receive, Send, Echo, Ask}); }
