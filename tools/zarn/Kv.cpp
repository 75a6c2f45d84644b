// Kv.cpp - zarn kv: looks into a LevelDB store and changes it.
#include <fcntl.h>
#include <leveldb/db.h>
#include <leveldb/iterator.h>
#include <leveldb/options.h>
#include <leveldb/status.h>
#include <sys/stat.h>
#include <unistd.h>

#include <CLI/App.hpp>
#include <cerrno>
#include <cstring>
#include <memory>

#include "CommandLine.h"
#include "Descriptor.h"
#include "EndpointFiles.h"
#include "LevelDBEnvironment.h"
#include "Output.h"
#include "StoreBytes.h"
#include "StorePlace.h"
#include "zarn/utils/CZARNLevelDBManager.h"

namespace zarn::tool {

namespace {

using utils::CZARNLevelDBManager;

struct KvOptions {
  std::string path;
  bool json = false;
  KeyOptions key;
  ValueOptions value;
  ShowOptions show;
};

// Who has the store open; 0 when nobody has.
pid_t FindHolder(const std::string& path) {
  const Descriptor lockFile(::open((path + "/LOCK").c_str(), O_RDWR | O_NOFOLLOW | O_CLOEXEC));
  struct flock lock {};
  lock.l_type = F_WRLCK;
  lock.l_whence = SEEK_SET;
  if (!lockFile || ::fcntl(lockFile.Get(), F_GETLK, &lock) != 0 || lock.l_type == F_UNLCK) return 0;
  return lock.l_pid;
}

void ComplainNotOpened(const std::string& path) {
  if (const pid_t holder = FindHolder(path); holder > 0) {
    Complain("'{}': in use by process {} ({})", Escape(path), holder,
             Escape(GetProgramName(holder)));
  } else if (!Descriptor(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)) ||
             ::access(path.c_str(), W_OK | X_OK) != 0) {
    Complain("'{}': {}", Escape(path), std::strerror(errno));
  } else {
    Complain("'{}': cannot be opened; its file LOG may say why", Escape(path));
  }
}

// LevelDB makes the directory even where it is to make no database, so that is looked at first.
bool IsKvThere(const std::string& path) {
  if (::access((path + "/CURRENT").c_str(), F_OK) == 0) return true;
  Complain("'{}': there is no store: {}", Escape(path), std::strerror(errno));
  return false;
}

// LevelDB would make it, too, but keep to itself why it cannot.
bool MakeDirectory(const std::string& path) {
  if (::mkdir(path.c_str(), 0755) == 0 || errno == EEXIST) return true;
  Complain("'{}': cannot be made: {}", Escape(path), std::strerror(errno));
  return false;
}

// The library would not say that this is why it cannot open the store.
bool StartThread(const std::string& path) {
  if (utils::StartLevelDBThread()) return true;
  Complain("'{}': cannot be opened: no thread can be started", Escape(path));
  return false;
}

bool OpenKv(const std::string& path, CZARNLevelDBManager& store, bool make) {
  if (!StartThread(path)) return false;
  if (make ? !MakeDirectory(path) : !IsKvThere(path)) return false;
  if (store.Open(path.c_str()) == 0) return true;
  ComplainNotOpened(path);
  return false;
}

enum class Damage { leftOut, refused };  // what LevelDB sees of it in the log

// The library's own class does not say what it leaves out, nor look whether a value is as it was
// written.
std::unique_ptr<leveldb::DB> OpenKvToRead(const std::string& path, Damage damage,
                                          utils::LevelDBEnvironment& environment) {
  leveldb::Options options;
  options.paranoid_checks = damage == Damage::refused;
  options.env = &environment;
  leveldb::DB* store = nullptr;
  if (environment.GetDirectory() < 0 || !leveldb::DB::Open(options, path, &store).ok())
    ComplainNotOpened(path);
  return std::unique_ptr<leveldb::DB>(store);
}

leveldb::ReadOptions VerifiedReads() {
  leveldb::ReadOptions options;
  options.verify_checksums = true;
  return options;
}

bool ReadFromKv(const std::string& path, const std::string& key, std::string& value) {
  if (!StartThread(path) || !IsKvThere(path)) return false;
  utils::LevelDBEnvironment environment(path, true);
  const auto store = OpenKvToRead(path, Damage::leftOut, environment);
  if (store == nullptr) return false;
  const leveldb::Status status = store->Get(VerifiedReads(), key, &value);
  if (status.IsNotFound()) {
    Complain("'{}': no key '{}'", Escape(path), Escape(key));
  } else if (!status.ok()) {
    Complain("'{}': key '{}' cannot be read: {}", Escape(path), Escape(key),
             Escape(status.ToString()));
  }
  return status.ok();
}

int Written(const KvOptions& options, int result) {
  if (result == 0) return kDone;
  Complain("'{}': cannot be written", Escape(options.path));
  return kFailed;
}

int RunKvGet(const KvOptions& options) {
  const auto key = GetKey(options.key);
  if (!key) return kUsage;
  std::string value;
  if (!ReadFromKv(options.path, *key, value)) return kFailed;
  if (options.show.NamesFile() && !IsOutside(options.path, options.show.file)) return kFailed;
  Output output(options.json);
  return ShowValue(output, options.show, *key, value) && output.Flush() ? kDone : kFailed;
}

int RunKvPut(const KvOptions& options) {
  auto key = GetKey(options.key);
  if (!key) return kUsage;
  auto value = GetValue(options.value);
  if (!value) return kFailed;
  CZARNLevelDBManager store(true, 0, true, true);
  if (!OpenKv(options.path, store, true)) return kFailed;
  return Written(options, store.DBInsert(key->data(), key->size(), value->data(), value->size()));
}

int RunKvRm(const KvOptions& options) {
  auto key = GetKey(options.key);
  if (!key) return kUsage;
  CZARNLevelDBManager store(true, 0, true, false);
  std::string value;
  if (!OpenKv(options.path, store, false)) return kFailed;
  if (store.DBLookup(key->data(), key->size(), &value) != 0) {
    Complain("'{}': no key '{}', or it cannot be read", Escape(options.path), Escape(*key));
    return kFailed;
  }
  return Written(options, store.DBRemove(key->data(), key->size()));
}

// Damage in the log is a failure: opened all the same, the store would lose for good what stands
// there.
int RunKvDump(const KvOptions& options) {
  if (!StartThread(options.path) || !IsKvThere(options.path)) return kFailed;
  utils::LevelDBEnvironment environment(options.path, true);
  const auto store = OpenKvToRead(options.path, Damage::refused, environment);
  if (store == nullptr) return kFailed;
  Output output(options.json);
  const std::unique_ptr<leveldb::Iterator> at(store->NewIterator(VerifiedReads()));
  for (at->SeekToFirst(); at->Valid() && output.GetError() == 0; at->Next())
    ShowEntry(output, options.show.hex, {at->key().data(), at->key().size()},
              {at->value().data(), at->value().size()});
  const leveldb::Status status = at->status();
  if (!status.ok())
    Complain("'{}': not all of it can be read: {}", Escape(options.path),
             Escape(status.ToString()));
  return output.Flush() && status.ok() ? kDone : kFailed;
}

}  // namespace

void AddKv(CLI::App& app, Action& action) {
  auto options = std::make_shared<KvOptions>();
  CLI::App& kv = *app.add_subcommand("kv", "look into a LevelDB store and change it");
  kv.add_option("DIR", options->path, "the directory of the store; 'put' makes it")
      ->check(IsNotEmpty())
      ->required();
  kv.require_subcommand(1);
  AddJson(kv, options->json);
  SetExamples(kv,
              "  zarn kv store put name north\n  zarn kv store dump --hex\n"
              "'zarn kv DIR put --help' shows the options of 'put', and so on.");

  CLI::App& get = AddVerb(kv, options, action, "get", "print the value of a key", RunKvGet);
  AddKey(get, options->key);
  AddShow(get, options->show);
  SetExamples(get, "  zarn kv store get name");

  CLI::App& put = AddVerb(kv, options, action, "put", "set the value of a key", RunKvPut);
  AddKey(put, options->key);
  AddValue(put, options->value);
  SetExamples(put, "  zarn kv store put name north\n  zarn kv store put 00ff --hex-key --hex 01");

  CLI::App& rm = AddVerb(kv, options, action, "rm", "remove a key", RunKvRm);
  AddKey(rm, options->key);
  SetExamples(rm, "  zarn kv store rm name");

  CLI::App& dump = AddVerb(kv, options, action, "dump", "print all keys and values", RunKvDump);
  AddHex(dump, options->show.hex);
  SetExamples(dump, "  zarn kv store dump --json");
}

}  // namespace zarn::tool
