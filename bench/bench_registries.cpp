// bench_registries.cpp - the registries beside std::unordered_map with the same key and hash.
//   bench_registries apps|listen OPERATION zarn|map [--entries N] [--seconds S]
// OPERATION is one of
//   lookup, add, remove   one call among N entries (1000000), prints {"ns": ...}
//   find                  the same with a copy of the item; listen only
//   scan                  all N entries for a job number that none has; apps only,
//                         prints {"seconds": ...}
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <string>
#include <unordered_map>

#include "common/Bench.h"
#include "zarn/utils/CZARNAppsManager.h"
#include "zarn/utils/CZARNListenNodeManager.h"

namespace {

using bench::Fail;
using bench::Now;
using zarn::utils::CZARNApp;
using zarn::utils::CZARNAppKeyHashFun;
using zarn::utils::CZARNAppsManager;
using zarn::utils::CZARNListenNodeItem;
using zarn::utils::CZARNListenNodeKey;
using zarn::utils::CZARNListenNodeManager;
using zarn::utils::ZARNAppKey;

constexpr std::uint16_t kNoJno = 0xFFFF;
constexpr std::uint32_t kRound = 1000;  // calls between two looks at the clock
// Without a common factor with a number of entries that is a power of ten.
constexpr std::uint64_t kStride = 618033;

struct RegistryOptions {
  std::string table;
  std::string operation;
  std::string contestant;
  std::uint32_t entries = 1000000;
  double seconds = 1;
};

RegistryOptions Parse(int argc, char** argv) {
  if (argc < 4 || argc % 2 != 0)
    Fail("usage: bench_registries apps|listen OPERATION zarn|map [--entries N] [--seconds S]");
  RegistryOptions options{argv[1], argv[2], argv[3]};
  for (int i = 4; i < argc; i += 2) {
    const std::string name = argv[i];
    if (name == "--entries")  // a power of ten of at least 1000
      options.entries = static_cast<std::uint32_t>(std::stoul(argv[i + 1]));
    else if (name == "--seconds")
      options.seconds = std::stod(argv[i + 1]);
    else
      Fail("unknown option " + name);
  }
  return options;
}

// --- contestants: each call says whether it did what it was asked ---

struct Apps {
  using Item = CZARNApp;
  static void Fill(CZARNApp& app, std::uint32_t number) {
    app.SetNodeId(number);
    app.jno = static_cast<std::uint16_t>(number % 1000);
  }
};

struct ZarnApps : Apps {
  CZARNAppsManager apps;
  bool Add(CZARNApp& app) { return apps.AddApp(app) == 0; }
  bool Remove(CZARNApp& app) { return apps.RemoveApp(app) == 0; }
  bool Lookup(CZARNApp& app) { return apps.AddApp(app) != 0; }  // there already
  bool Scan(CZARNApp& out) { return apps.GetAppsByJno(kNoJno, out) != 0; }
};

struct MapApps : Apps {
  std::unordered_map<ZARNAppKey, CZARNApp, CZARNAppKeyHashFun> apps;
  bool Add(CZARNApp& app) { return apps.try_emplace(ZARNAppKey(app), app).second; }
  bool Remove(CZARNApp& app) { return apps.erase(ZARNAppKey(app)) == 1; }
  bool Lookup(CZARNApp& app) { return !Add(app); }
  bool Scan(CZARNApp& out) {
    const auto found = std::find_if(apps.begin(), apps.end(),
                                    [](const auto& entry) { return entry.second.jno == kNoJno; });
    if (found == apps.end()) return true;
    out = found->second;
    return false;
  }
};

struct Listen {
  using Item = CZARNListenNodeItem;
  static void Fill(CZARNListenNodeItem& item, std::uint32_t number) {
    item.SetNodeId(number);
    item.SetServiceno(static_cast<std::uint16_t>(number % 1000));
  }
};

struct ZarnListen : Listen {
  CZARNListenNodeManager nodes;
  bool Add(CZARNListenNodeItem& item) { return nodes.AddListenNotify(item) == 0; }
  bool Remove(CZARNListenNodeItem& item) {
    CZARNListenNodeKey key(item);
    return nodes.RemoveListenNotify(key) == 0;
  }
  bool Lookup(CZARNListenNodeItem& item) {
    CZARNListenNodeKey key(item);
    return nodes.LookupListenNotify(key) == 0;
  }
  bool Find(CZARNListenNodeItem& item) {
    CZARNListenNodeKey key(item);
    return nodes.FindListenNotify(key, item) == 0;
  }
};

struct MapListen : Listen {
  CZARNListenNodeManager::Map nodes;
  bool Add(CZARNListenNodeItem& item) {
    nodes[CZARNListenNodeKey(item)] = item;
    return true;
  }
  bool Remove(CZARNListenNodeItem& item) { return nodes.erase(CZARNListenNodeKey(item)) == 1; }
  bool Lookup(CZARNListenNodeItem& item) {
    return nodes.find(CZARNListenNodeKey(item)) != nodes.end();
  }
  bool Find(CZARNListenNodeItem& item) {
    const auto found = nodes.find(CZARNListenNodeKey(item));
    if (found == nodes.end()) return false;
    item = found->second;
    return true;
  }
};

// --- measuring ---

template <class Table>
class Measurement {
 public:
  explicit Measurement(const RegistryOptions& options) : options_(options) {
    for (std::uint32_t number = 0; number < options.entries; ++number) {
      Table::Fill(item_, number);
      if (!table_.Add(item_)) Fail("an entry was not added");
    }
  }

  // Nanoseconds a call.
  template <class Call>
  double MeasureEach(Call call) {
    std::uint64_t position = 0;
    return MeasureRounds([&] {
      position = (position + kRound) % options_.entries;
      return TimeRound(call, position);
    });
  }

  // New entries come and the oldest go, a round of each; one of the two is timed.
  double MeasureChange(bool adding) {
    std::uint64_t position = 0;
    return MeasureRounds([&] {
      const double added = TimeRound(&Table::Add, position + options_.entries);
      const double removed = TimeRound(&Table::Remove, position);
      position += kRound;
      return adding ? added : removed;
    });
  }

  double MeasureScan() {
    const double begin = Now();
    double calls = 0;
    double taken = 0;
    do {
      if (!table_.Scan(item_)) Fail("a scan found what is not there");
      ++calls;
      taken = Now() - begin;
    } while (taken < options_.seconds);
    return taken / calls;
  }

 private:
  template <class Round>
  double MeasureRounds(Round round) {
    const double end = Now() + options_.seconds;
    double seconds = 0;
    double calls = 0;
    do {
      seconds += round();
      calls += kRound;
    } while (Now() < end);
    return seconds * 1e9 / calls;
  }

  // Calls for the entries at a position and behind it.
  template <class Call>
  double TimeRound(Call call, std::uint64_t position) {
    const double begin = Now();
    for (const std::uint64_t end = position + kRound; position < end; ++position) {
      Table::Fill(item_, NumberAt(position));
      if (!(table_.*call)(item_)) Fail("a call did not do what it was asked");
    }
    return Now() - begin;
  }

  // Lap by lap all numbers, in an order that no cache foresees.
  std::uint32_t NumberAt(std::uint64_t position) const {
    const std::uint64_t lap = position / options_.entries;
    return static_cast<std::uint32_t>(lap * options_.entries +
                                      position * kStride % options_.entries);
  }

  const RegistryOptions options_;
  Table table_;
  typename Table::Item item_;
};

template <class Table>
void Run(const RegistryOptions& options) {
  Measurement<Table> measurement(options);
  if (options.operation == "lookup") {
    std::printf("{\"ns\": %.2f}\n", measurement.MeasureEach(&Table::Lookup));
    return;
  }
  if (options.operation == "add" || options.operation == "remove") {
    std::printf("{\"ns\": %.2f}\n", measurement.MeasureChange(options.operation == "add"));
    return;
  }
  if constexpr (requires { &Table::Find; }) {
    if (options.operation == "find") {
      std::printf("{\"ns\": %.2f}\n", measurement.MeasureEach(&Table::Find));
      return;
    }
  } else if (options.operation == "scan") {
    std::printf("{\"seconds\": %.6f}\n", measurement.MeasureScan());
    return;
  }
  Fail("no such operation: " + options.operation);
}

}  // namespace

int main(int argc, char** argv) {
  const RegistryOptions options = Parse(argc, argv);
  const std::string what = options.table + " " + options.contestant;
  if (what == "apps zarn")
    Run<ZarnApps>(options);
  else if (what == "apps map")
    Run<MapApps>(options);
  else if (what == "listen zarn")
    Run<ZarnListen>(options);
  else if (what == "listen map")
    Run<MapListen>(options);
  else
    Fail("no such contestant: " + what);
  return 0;
}
