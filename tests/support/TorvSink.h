// TorvSink.h - receivers of in-process messages that note what they are told.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "TaskThread.h"
#include "zarn/utils/ITORVSink.h"

namespace zarn::test {

// Everything that was posted to the task thread before has been delivered.
inline void WaitForDelivery() {
  TaskThread()->Call([] {});
}

// Receivers are never deleted, so neither are their sinks: Make() keeps them to the process's end.
class RecordingSink : public utils::ITORVSink {
 public:
  struct Delivery {
    std::string what;  // "init", "uninit", or the message's bytes
    unsigned short number = 0;
    void* pointer = nullptr;  // the argument or the context
    std::thread::id thread;
  };

  static RecordingSink& Make() {
    static auto& all = *new std::vector<std::unique_ptr<RecordingSink>>;
    all.push_back(std::make_unique<RecordingSink>());
    return *all.back();
  }

  void OnInit(void* arg) override { Note({"init", 0, arg, {}}); }
  void OnMessage(keelbase::CAWMessageBlock& mb, const unsigned short& number,
                 void* context) override {
    Note({mb.FlattenChained(), number, context, {}});
  }
  void OnUnInit() override { Note({"uninit", 0, nullptr, {}}); }

  // What has come so far, in one line: "init hello uninit".
  std::string Told() const {
    WaitForDelivery();
    std::string line;
    for (const Delivery& delivery : deliveries) line += (line.empty() ? "" : " ") + delivery.what;
    return line;
  }

  std::vector<Delivery> deliveries;  // look at it after WaitForDelivery()

 private:
  void Note(Delivery delivery) {
    delivery.thread = std::this_thread::get_id();
    deliveries.push_back(std::move(delivery));
  }
};

}  // namespace zarn::test
