// Db.cpp - zarn db: looks into an SQLite store and changes it.
#include "Db.h"

#include <CLI/App.hpp>

#include "CommandLine.h"
#include "Output.h"
#include "StoreBytes.h"
#include "StorePlace.h"

namespace zarn::tool {

namespace {

struct DbOptions {
  std::string path;
  bool json = false;
  KeyOptions key;
  ValueOptions value;
  ShowOptions show;
  std::string transfer = "-";  // file to import from or to export to
};

// Nothing, after a complaint, when it is none that the store can hold.
std::optional<std::string> GetDbKey(const DbOptions& options) {
  std::optional<std::string> key = GetKey(options.key);
  if (!key) return std::nullopt;
  const std::string reason = WhyRefused("key", *key);
  if (reason.empty()) return key;
  Complain("{}", reason);
  return std::nullopt;
}

// Fails unless it is there; a complaint says why.
bool FindInDb(DbFile& file, const DbOptions& options, const std::string& key, std::string& value) {
  std::optional<std::string> found;
  if (!file.Find(key, found)) {
    Complain("'{}': {}", Escape(options.path), file.GetReason());
  } else if (!found) {
    Complain("'{}': no key '{}'", Escape(options.path), Escape(key));
  } else {
    value = *found;
  }
  return found.has_value();
}

int RunDbGet(const DbOptions& options) {
  const auto key = GetDbKey(options);
  if (!key) return kUsage;
  const auto file = OpenToRead(options.path);
  std::string value;
  if (file == nullptr || !FindInDb(*file, options, *key, value)) return kFailed;
  if (options.show.NamesFile() && !MayReplace(options.path, options.show.file)) return kFailed;
  Output output(options.json);
  return ShowValue(output, options.show, *key, value) && output.Flush() ? kDone : kFailed;
}

int RunDbSet(const DbOptions& options) {
  const auto key = GetDbKey(options);
  if (!key) return kUsage;
  const auto value = GetValue(options.value);
  if (!value) return kFailed;
  if (const std::string reason = WhyRefused("value", *value); !reason.empty()) {
    Complain("{}", reason);
    return kUsage;
  }
  utils::CZARNSqliteDB db;
  if (!OpenToWrite(options.path, db)) return kFailed;
  if (db.SetPersistentData(DoubleQuotes(*key), DoubleQuotes(*value)) == keelbase::AW_OK)
    return kDone;
  ComplainNotWritten(options.path, *key);
  return kFailed;
}

int RunDbRm(const DbOptions& options) {
  const auto key = GetDbKey(options);
  if (!key) return kUsage;
  std::string value;
  {
    const auto file = OpenToRead(options.path);
    if (file == nullptr || !FindInDb(*file, options, *key, value)) return kFailed;
  }
  utils::CZARNSqliteDB db;
  if (!OpenToWrite(options.path, db)) return kFailed;
  if (db.RemovePersistentData(DoubleQuotes(*key)) == keelbase::AW_OK) return kDone;
  ComplainNotWritten(options.path, *key);
  return kFailed;
}

int RunDbLs(const DbOptions& options) {
  const auto file = OpenToRead(options.path);
  if (file == nullptr) return kFailed;
  Output output(options.json);
  const bool read = file->ForEach([&](std::string_view key, std::string_view value) {
    ShowEntry(output, options.show.hex, key, value);
    return output.GetError() == 0;
  });
  if (!read) Complain("'{}': {}", Escape(options.path), file->GetReason());
  return output.Flush() && read ? kDone : kFailed;
}

void AddReading(CLI::App& db, const std::shared_ptr<DbOptions>& options, Action& action) {
  CLI::App& get = AddVerb(db, options, action, "get", "print the value of a key", RunDbGet);
  AddKey(get, options->key);
  AddShow(get, options->show);
  SetExamples(get, "  zarn db settings.db get zarn://node/name");

  CLI::App& ls = AddVerb(db, options, action, "ls", "print all keys and values", RunDbLs);
  AddHex(ls, options->show.hex);
  SetExamples(ls, "  zarn db settings.db ls");

  CLI::App& exporting =
      AddVerb(db, options, action, "export", "write all keys and values to a file",
              [](const DbOptions& o) { return ExportDb(o.path, o.transfer, o.json); });
  exporting.add_option("TO", options->transfer, "the file; '-', the default, is standard output")
      ->check(IsNotEmpty());
  SetExamples(exporting, "  zarn db settings.db export settings.jsonl");
}

void AddWriting(CLI::App& db, const std::shared_ptr<DbOptions>& options, Action& action) {
  CLI::App& set = AddVerb(db, options, action, "set", "set the value of a key", RunDbSet);
  AddKey(set, options->key);
  AddValue(set, options->value);
  SetExamples(set,
              "  zarn db settings.db set zarn://node/name north\n"
              "  zarn db settings.db set zarn://node/logo --file logo.svg");

  CLI::App& rm = AddVerb(db, options, action, "rm", "remove a key", RunDbRm);
  AddKey(rm, options->key);
  SetExamples(rm, "  zarn db settings.db rm zarn://node/name");

  CLI::App& importing =
      AddVerb(db, options, action, "import", "set the keys and values that a file holds",
              [](const DbOptions& o) { return ImportDb(o.path, o.transfer, o.json); });
  importing.add_option("FROM", options->transfer, "the file; '-', the default, is standard input")
      ->check(IsNotEmpty());
  SetExamples(importing, "  zarn db settings.db import settings.jsonl");
}

}  // namespace

std::string WhyRefused(const char* what, std::string_view bytes) {
  if (bytes.empty()) return fmt::format("an empty {} cannot be stored", what);
  if (bytes.find('\0') != std::string_view::npos)
    return fmt::format("the {} holds a NUL byte, which would end the store's SQL statement", what);
  return {};
}

std::string DoubleQuotes(std::string_view bytes) {
  std::string doubled;
  doubled.reserve(bytes.size());
  for (const char byte : bytes) doubled.append(byte == '\'' ? 2 : 1, byte);
  return doubled;
}

std::unique_ptr<DbFile> OpenToRead(const std::string& path) {
  auto file = std::make_unique<DbFile>(path);
  switch (file->GetState()) {
    case DbFile::State::usable:
      return file;
    case DbFile::State::missing:
      Complain("'{}': there is no store", Escape(path));
      break;
    case DbFile::State::noTable:
      Complain("'{}': not a store, it has no table ZARNDATA", Escape(path));
      break;
    case DbFile::State::unreadable:
      Complain("'{}': cannot be opened: {}", Escape(path), file->GetReason());
      break;
  }
  return nullptr;
}

bool OpenToWrite(const std::string& path, utils::CZARNSqliteDB& db) {
  const DbFile file(path);
  if (file.GetState() == DbFile::State::unreadable) {
    Complain("'{}': cannot be opened: {}", Escape(path), file.GetReason());
    return false;
  }
  // For a store that is there the library answers with a failure too.
  if (db.InitDB(NameForSqlite(path)) == keelbase::AW_OK || file.GetState() == DbFile::State::usable)
    return true;
  ComplainNotWritten(path);
  return false;
}

void ComplainNotWritten(const std::string& path, std::string_view key) {
  DbFile file(path);
  const bool there = file.GetState() != DbFile::State::missing;
  Complain("'{}': cannot be written: {}", Escape(path),
           there ? file.ExplainWriteFailure(key) : "the file cannot be made");
}

void AddDb(CLI::App& app, Action& action) {
  auto options = std::make_shared<DbOptions>();
  CLI::App& db = *app.add_subcommand("db", "look into an SQLite store and change it");
  db.add_option("FILE", options->path, "the file of the store; 'set' and 'import' make it")
      ->check(IsNotEmpty())
      ->required();
  db.require_subcommand(1);
  AddJson(db, options->json);
  AddReading(db, options, action);
  AddWriting(db, options, action);
  SetExamples(
      db,
      "  zarn db settings.db set zarn://node/name north\n"
      "  zarn db settings.db export settings.jsonl\n"
      "Exported is one JSON object a line, {\"key\":\"...\",\"value\":\"...\"}; what is not UTF-8 "
      "stands\nas hex digits under \"key_hex\" or \"value_hex\". An import that was interrupted is "
      "run again.\nKeys and values hold no NUL byte and are not empty.\n"
      "'zarn db FILE set --help' shows the options of 'set', and so on.");
}

}  // namespace zarn::tool
