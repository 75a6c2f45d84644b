// bench_registries.cpp - the registries beside std::unordered_map with the same key and hash.
//   bench_registries apps|listen OPERATION [--first zarn|map] [--entries N] [--seconds S]
// OPERATION is lookup, add or remove: one call among N entries (1000000); of listen also find, a
// lookup with a copy of the item; of apps also scan, all entries for a job number that none has.
// Both tables are in one process and take turns, so what disturbs one disturbs the other. Prints
// for each of "zarn" and "map" the time of a call: {"ns": ..., "seconds": ...}.
#include <time.h>

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
constexpr std::uint32_t kRound = 100;  // calls between two looks at the clock
// Without a common factor with a number of entries that is a power of ten.
constexpr std::uint64_t kStride = 618033;

struct RegistryOptions {
  std::string table;
  std::string operation;
  std::string first = "zarn";
  std::uint32_t entries = 1000000;
  double seconds = 1;
};

RegistryOptions Parse(int argc, char** argv) {
  if (argc < 3 || argc % 2 == 0)
    Fail("usage: bench_registries apps|listen OPERATION [--entries N] [--seconds S]");
  RegistryOptions options{argv[1], argv[2]};
  for (int i = 3; i < argc; i += 2) {
    const std::string name = argv[i];
    if (name == "--entries")  // a power of ten of at least 1000
      options.entries = static_cast<std::uint32_t>(std::stoul(argv[i + 1]));
    else if (name == "--first")
      options.first = argv[i + 1];
    else if (name == "--seconds")
      options.seconds = std::stod(argv[i + 1]);
    else
      Fail("unknown option " + name);
  }
  return options;
}

// Of this thread: what other programs do in the meantime does not count.
double CpuNow() {
  timespec time{};
  ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
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
class Contestant {
 public:
  explicit Contestant(const RegistryOptions& options)
      : entries_(options.entries), round_(Choose(options.operation)) {}

  void Fill(std::uint32_t number) {
    Table::Fill(item_, number);
    if (!table_.Add(item_)) Fail("an entry was not added");
  }

  void TimeRound() { (this->*round_)(); }

  void Print(const char* name) const {
    const double seconds = seconds_ / calls_;
    std::printf("\"%s\": {\"ns\": %.2f, \"seconds\": %.9f}", name, seconds * 1e9, seconds);
  }

 private:
  using Round = void (Contestant::*)();

  static Round Choose(const std::string& operation) {
    if (operation == "lookup") return &Contestant::Lookup;
    if (operation == "add") return &Contestant::Change<true>;
    if (operation == "remove") return &Contestant::Change<false>;
    if constexpr (requires { &Table::Find; }) {
      if (operation == "find") return &Contestant::Find;
    } else {
      if (operation == "scan") return &Contestant::Scan;
    }
    Fail("no such operation: " + operation);
  }

  void Lookup() { Count(Time(&Table::Lookup, position_ % entries_)); }
  void Find() { Count(Time(&Table::Find, position_ % entries_)); }

  // New entries come and the oldest go, a round of each; one of the two counts.
  template <bool adding>
  void Change() {
    const double added = Time(&Table::Add, position_ + entries_);
    const double removed = Time(&Table::Remove, position_);
    Count(adding ? added : removed);
  }

  void Scan() {
    const double begin = CpuNow();
    if (!table_.Scan(item_)) Fail("a scan found what is not there");
    seconds_ += CpuNow() - begin;
    ++calls_;
  }

  // Calls for the entries at a position and behind it.
  template <class Call>
  double Time(Call call, std::uint64_t position) {
    const double begin = CpuNow();
    for (const std::uint64_t end = position + kRound; position < end; ++position) {
      Table::Fill(item_, NumberAt(position));
      if (!(table_.*call)(item_)) Fail("a call did not do what it was asked");
    }
    return CpuNow() - begin;
  }

  void Count(double seconds) {
    seconds_ += seconds;
    calls_ += kRound;
    position_ += kRound;
  }

  // Lap by lap all numbers, in an order that no cache foresees.
  std::uint32_t NumberAt(std::uint64_t position) const {
    const std::uint64_t lap = position / entries_;
    return static_cast<std::uint32_t>(lap * entries_ + position * kStride % entries_);
  }

  const std::uint64_t entries_;
  const Round round_;
  Table table_;
  typename Table::Item item_;
  std::uint64_t position_ = 0;
  double seconds_ = 0;
  double calls_ = 0;
};

template <class First, class Second>
void Run(const RegistryOptions& options, const char* firstName, const char* secondName) {
  Contestant<First> first(options);
  Contestant<Second> second(options);
  for (std::uint32_t number = 0; number < options.entries; ++number) {
    first.Fill(number);
    second.Fill(number);
  }
  const double end = Now() + options.seconds;
  do {
    first.TimeRound();
    second.TimeRound();
    second.TimeRound();
    first.TimeRound();
  } while (Now() < end);
  std::printf("{");
  first.Print(firstName);
  std::printf(", ");
  second.Print(secondName);
  std::printf("}\n");
}

template <class Ours, class Map>
void RunBoth(const RegistryOptions& options) {
  if (options.first == "zarn")
    Run<Ours, Map>(options, "zarn", "map");
  else
    Run<Map, Ours>(options, "map", "zarn");
}

}  // namespace

int main(int argc, char** argv) {
  const RegistryOptions options = Parse(argc, argv);
  if (options.table == "apps")
    RunBoth<ZarnApps, MapApps>(options);
  else if (options.table == "listen")
    RunBoth<ZarnListen, MapListen>(options);
  else
    Fail("no such table: " + options.table);
  return 0;
}
