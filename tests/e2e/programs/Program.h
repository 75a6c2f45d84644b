// Program.h - what the programs of the end-to-end tests share: events out, commands in, and the
// loop.
#pragma once

#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <iostream>
#include <sstream>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "keelbase/CAWIPCAddr.h"
#include "keelbase/CAWThreadManager.h"
#include "zarn/utils/zarnutils.h"

namespace e2e {

// One line of JSON on standard output, written as a whole at the end of the statement:
//   Event("accepted").With("clients", 3);
class Event {
 public:
  explicit Event(std::string_view name) {
    const std::chrono::duration<double> now = std::chrono::steady_clock::now().time_since_epoch();
    line_ = "{\"event\":\"" + std::string(name) + "\",\"time\":" + std::to_string(now.count());
  }
  ~Event() {
    line_ += "}\n";
    if (::write(STDOUT_FILENO, line_.data(), line_.size()) < 0) ::_exit(1);  // nobody listens
  }
  Event(const Event&) = delete;
  Event& operator=(const Event&) = delete;

  template <class Integer>
  Event& With(std::string_view key, Integer value) {
    line_ += ",\"" + std::string(key) + "\":" + std::to_string(value);
    return *this;
  }

 private:
  std::string line_;
};

// The two numbers of an endpoint, as in "1_2".
struct Endpoint {
  std::uint16_t first = 0;
  std::uint16_t second = 0;

  explicit Endpoint(const std::string& text) {
    char separator = 0;
    std::istringstream(text) >> first >> separator >> second;
  }
};

using Words = std::vector<std::string>;

// Calls `handle` with the words of each line of standard input, until that ends.
inline void ReadCommands(const std::function<void(const Words&)>& handle) {
  std::string line;
  while (std::getline(std::cin, line)) {
    std::istringstream stream(line);
    Words words;
    for (std::string word; stream >> word;) words.push_back(word);
    if (!words.empty()) handle(words);
  }
}

// Serves `program` on a platform thread until standard input ends, which also happens when the test
// that started us dies. Program: Start(), Command(const Words&), Finish(), all called on that
// thread: the network thread, or with `adopt_main` this one.
template <class Program>
int Serve(Program& program, bool adopt_main, std::uint32_t spin = 0) {
  using keelbase::CAWThreadManager;
  auto* manager = CAWThreadManager::Instance();
  if (!adopt_main) {
    keelbase::CAWThread* network = manager->GetThread(CAWThreadManager::TT_NETWORK);
    if (network == nullptr) {
      const Event told("no_thread");  // nor an error of ours: the system gives none
      return 0;
    }
    network->SetSpin(spin);
    network->Call([&] { program.Start(); });
    ReadCommands([&](const Words& words) { network->Call([&] { program.Command(words); }); });
    network->Call([&] { program.Finish(); });
    return 0;
  }
  manager->AdoptCurrentThread(CAWThreadManager::TT_MAIN);
  keelbase::CAWThread* main_thread = manager->GetThread(CAWThreadManager::TT_MAIN);
  main_thread->SetSpin(spin);
  program.Start();
  std::thread reader([&] {
    ReadCommands([&](const Words& words) { main_thread->Call([&] { program.Command(words); }); });
    main_thread->Stop();
  });
  main_thread->Run();
  reader.join();
  program.Finish();
  return 0;
}

// What may stand behind the arguments of a program, in any order.
struct Options {
  bool adoptMain = false;  // main: serves on the main thread
  bool shm = false;        // shm: over shared memory
  std::uint32_t spin = 0;  // spin=MICROSECONDS
  std::size_t bound = 0;   // bound=BYTES

  Options(int first, int argc, char** argv) {
    for (int i = first; i < argc; ++i) {
      const std::string option = argv[i];
      const std::size_t value = option.find('=') + 1;
      if (option == "main") adoptMain = true;
      if (option == "shm") shm = true;
      if (option.substr(0, value) == "spin=")
        spin = static_cast<std::uint32_t>(std::stoul(option.substr(value)));
      if (option.substr(0, value) == "bound=") bound = std::stoul(option.substr(value));
    }
  }
};

}  // namespace e2e
