// DbTransfer.cpp - zarn db import and export: one JSON object a line.
#include <fcntl.h>
#include <json/reader.h>
#include <json/writer.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "CommandLine.h"
#include "Db.h"
#include "Descriptor.h"
#include "Interruption.h"
#include "Output.h"
#include "Progress.h"
#include "SameFile.h"
#include "StoreBytes.h"
#include "StorePlace.h"

namespace zarn::tool {

namespace {

// Between two commits. What an interruption undoes is at most one batch.
constexpr std::uint64_t kBatchRows = 1000;
constexpr std::size_t kBatchBytes = std::size_t{4} << 20;
constexpr std::uint64_t kRowsPerLook = 256;  // between two drawings of the progress bar

struct StoreRow {
  std::string key;
  std::string value;
};

// Takes the text under `name`, or the hex digits under `name`_hex. Empty, or what is wrong.
std::string TakeMember(const Json::Value& object, const std::string& name, std::string& bytes) {
  const bool hex = object.isMember(name + "_hex");
  if (hex == object.isMember(name)) return fmt::format("it has no {}, or two", name);
  const Json::Value& member = object[hex ? name + "_hex" : name];
  if (!member.isString()) return fmt::format("its {} is no text", name);
  bytes = member.asString();
  if (hex) {
    std::optional<std::string> decoded = FromHex(bytes);
    if (!decoded) return fmt::format("its {}_hex is not pairs of hex digits", name);
    bytes = std::move(*decoded);
  }
  return WhyRefused(name.c_str(), bytes);
}

// Empty, or what is wrong with the line.
std::string ParseRow(Json::CharReader& reader, std::string_view line, StoreRow& row) {
  Json::Value object;
  try {
    if (!reader.parse(line.data(), line.data() + line.size(), &object, nullptr) ||
        !object.isObject() || object.size() != 2)
      return "it is no JSON object of a key and a value";
  } catch (const Json::Exception&) {
    return "it is no JSON object of a key and a value";
  }
  std::string problem = TakeMember(object, "key", row.key);
  return problem.empty() ? TakeMember(object, "value", row.value) : problem;
}

class Importer {
 public:
  Importer(std::FILE* file, const std::string& from, const std::string& path)
      : file_(file), from_(from), path_(path), reader_(MakeReader()) {
    struct stat status {};
    if (::fstat(::fileno(file_), &status) == 0 && S_ISREG(status.st_mode))
      size_ = static_cast<double>(status.st_size);
  }
  ~Importer() { std::free(line_); }
  Importer(const Importer&) = delete;
  Importer& operator=(const Importer&) = delete;

  int Run() {
    if (!OpenToWrite(path_, db_)) return kFailed;
    int code = kDone;
    while (code == kDone && ReadLine()) code = Take();
    // What came before an interruption is kept.
    if (code == kDone && !Commit()) code = kFailed;
    progress_.Clear();
    if (code == kDone && IsInterrupted()) {
      Complain("interrupted after {} rows; run it again to finish", rows_);
      code = kFailed;
    } else if (code == kDone && readError_ != 0) {
      Complain("'{}': {}", Escape(from_), std::strerror(readError_));
      code = kFailed;
    }
    return code;
  }
  std::uint64_t GetRows() const { return rows_; }

 private:
  static std::unique_ptr<Json::CharReader> MakeReader() {
    Json::CharReaderBuilder builder;
    Json::CharReaderBuilder::strictMode(&builder.settings_);
    return std::unique_ptr<Json::CharReader>(builder.newCharReader());
  }

  bool ReadLine() {
    if (IsInterrupted()) return false;
    const ssize_t length = ::getline(&line_, &capacity_, file_);
    // The start of a line that an error cuts off is given all the same. That there is no memory for
    // one is no error of the file.
    if (std::ferror(file_) != 0 || (length < 0 && std::feof(file_) == 0)) readError_ = errno;
    if (length < 0 || readError_ != 0 || IsInterrupted()) return false;
    lineLength_ = static_cast<std::size_t>(length);
    read_ += static_cast<double>(length);
    ++number_;
    return true;
  }

  int Take() {
    StoreRow row;
    std::string_view line(line_, lineLength_);
    if (line.ends_with('\n')) line.remove_suffix(1);
    if (line.empty()) return kDone;
    if (const std::string problem = ParseRow(*reader_, line, row); !problem.empty()) {
      if (!Commit()) return kFailed;
      progress_.Clear();
      Complain("'{}', line {}: {}; {} rows before it are stored", Escape(from_), number_, problem,
               rows_);
      return kUsage;
    }
    if (batchRows_ == 0) begun_ = db_.Begin() == 0;
    if (!begun_ ||
        db_.SetPersistentData(DoubleQuotes(row.key), DoubleQuotes(row.value)) != keelbase::AW_OK) {
      NotWritten(row.key);
      return kFailed;
    }
    ++batchRows_;
    batchBytes_ += row.key.size() + row.value.size();
    const bool full = batchRows_ == kBatchRows || batchBytes_ >= kBatchBytes;
    return full && !Commit() ? kFailed : kDone;
  }

  // Nothing of this batch is stored then.
  void NotWritten(std::string_view key = "") {
    batchRows_ = 0;
    begun_ = false;
    db_.CloseDB();
    progress_.Clear();
    ComplainNotWritten(path_, key);
    Complain("{} rows are stored; run it again to finish", rows_);
  }

  bool Commit() {
    if (batchRows_ == 0) return true;
    if (db_.Commit() != 0) {
      NotWritten();
      return false;
    }
    rows_ += batchRows_;
    batchRows_ = 0;
    batchBytes_ = 0;
    if (size_ > 0) progress_.Show(read_ / size_, fmt::format("{} rows", rows_));
    return true;
  }

  std::FILE* const file_;
  const std::string from_;
  const std::string path_;
  const std::unique_ptr<Json::CharReader> reader_;
  utils::CZARNSqliteDB db_;
  Progress progress_;
  double size_ = 0;  // of the file; 0: not known
  double read_ = 0;
  char* line_ = nullptr;  // of getline
  std::size_t capacity_ = 0;
  std::size_t lineLength_ = 0;
  int readError_ = 0;  // errno value
  std::uint64_t number_ = 0;
  std::uint64_t rows_ = 0;  // committed
  std::uint64_t batchRows_ = 0;
  std::size_t batchBytes_ = 0;
  bool begun_ = false;
};

std::string FormatRow(const Json::StreamWriterBuilder& builder, std::string_view key,
                      std::string_view value) {
  Json::Value object;
  const auto put = [&](const std::string& name, std::string_view bytes) {
    if (IsUtf8(bytes)) {
      object[name] = std::string(bytes);
    } else {
      object[name + "_hex"] = ToHex(bytes);
    }
  };
  put("key", key);
  put("value", value);
  return Json::writeString(builder, object) + "\n";
}

// False after a complaint. `rows` counts those written.
bool WriteRows(DbFile& store, const std::string& path, std::FILE* file, const std::string& to,
               std::uint64_t& rows) {
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "";
  builder["emitUTF8"] = true;
  Progress progress;
  const auto count = store.Count();
  bool written = true;
  const bool read = count && store.ForEach([&](std::string_view key, std::string_view value) {
    const std::string line = FormatRow(builder, key, value);
    written = std::fwrite(line.data(), 1, line.size(), file) == line.size();
    if (++rows % kRowsPerLook == 0 && file != stdout)
      progress.Show(static_cast<double>(rows) / static_cast<double>(*count),
                    fmt::format("{} rows", rows));
    return written && !IsInterrupted();
  });
  written = written && std::fflush(file) == 0;
  const int error = errno;
  progress.Clear();
  if (!written) {
    if (error != EPIPE) Complain("'{}': {}", Escape(to), std::strerror(error));
  } else if (!read) {
    Complain("'{}': {}", Escape(path), store.GetReason());
  } else if (IsInterrupted()) {
    Complain("interrupted; run it again");
  }
  return written && read && !IsInterrupted();
}

bool IsStandardOutput(const std::string& path) {
  struct stat named {};
  struct stat output {};
  return ::stat(path.c_str(), &named) == 0 && ::fstat(STDOUT_FILENO, &output) == 0 &&
         IsSameFile(named, output);
}

// For a pipe, a device and the like, and for an open file that has no name.
bool ExportDirectly(DbFile& store, const std::string& path, const std::string& to,
                    std::uint64_t& rows) {
  std::FILE* file = std::fopen(to.c_str(), "wbe");
  const bool written = file != nullptr && WriteRows(store, path, file, to, rows);
  const bool done = file != nullptr && std::fclose(file) == 0 && written;
  if (!done && (written || file == nullptr)) Complain("'{}': {}", Escape(to), std::strerror(errno));
  return done;
}

// Whoever writes a part has it locked as long as it has that name. A file system without locks
// refuses nobody.
bool LockPart(int fd) { return ::flock(fd, LOCK_EX | LOCK_NB) == 0 || errno != EWOULDBLOCK; }

bool IsAt(const std::string& path, int fd) {
  struct stat named {};
  struct stat opened {};
  return ::lstat(path.c_str(), &named) == 0 && ::fstat(fd, &opened) == 0 &&
         IsSameFile(named, opened);
}

// What an export that was killed has left. False with errno, EWOULDBLOCK while one writes it.
bool RemoveLeftPart(const std::string& part) {
  const Descriptor left(::open(part.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  if (!left && errno != ELOOP) return errno == ENOENT;
  if (left && !LockPart(left.Get())) return false;
  if (!left || IsAt(part, left.Get())) ::unlink(part.c_str());
  return true;
}

// A new file, as private as the one that it is to replace; null with errno, EWOULDBLOCK while
// another export writes one.
std::FILE* MakePart(const std::string& part, const struct stat* replaced) {
  constexpr int kFlags = O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
  constexpr auto kSameOwner = static_cast<uid_t>(-1);
  if (!RemoveLeftPart(part)) return nullptr;
  const int fd = ::open(part.c_str(), kFlags, replaced != nullptr ? 0600 : 0666);
  if (fd < 0) return nullptr;
  // Until it is locked another export may take it for one that was left, and remove it.
  if (!LockPart(fd) || !IsAt(part, fd)) {
    ::close(fd);
    errno = EWOULDBLOCK;
    return nullptr;
  }
  if (replaced != nullptr) {
    // Only root can keep a foreign owner, and nobody else a group that is not one's own.
    const bool sameGroup = ::fchown(fd, replaced->st_uid, replaced->st_gid) == 0 ||
                           ::fchown(fd, kSameOwner, replaced->st_gid) == 0;
    ::fchmod(fd, replaced->st_mode & (sameGroup ? 0777U : 0707U));
  }
  return ::fdopen(fd, "wb");
}

// The file at `place` is there with all its rows, or as it was before.
bool ReplaceByExport(DbFile& store, const std::string& path, const std::string& place,
                     const struct stat* replaced, std::uint64_t& rows) {
  const std::string part = place + ".part";
  if (!MayReplace(path, place) || !MayReplace(path, part)) return false;
  std::FILE* file = MakePart(part, replaced);
  if (file == nullptr) {
    Complain("'{}': {}", Escape(part),
             errno == EWOULDBLOCK ? "another export is writing it" : std::strerror(errno));
    return false;
  }
  const bool written = WriteRows(store, path, file, place, rows);
  const bool done =
      written && ::fsync(::fileno(file)) == 0 && std::rename(part.c_str(), place.c_str()) == 0;
  if (written && !done) Complain("'{}': {}", Escape(place), std::strerror(errno));
  if (!done) ::unlink(part.c_str());
  std::fclose(file);  // the lock ends; all that was written is on disk
  return done;
}

bool ExportToFile(DbFile& store, const std::string& path, const std::string& to,
                  std::uint64_t& rows) {
  struct stat status {};
  const bool there = ::stat(to.c_str(), &status) == 0;
  if (!there && errno != ENOENT) {
    Complain("'{}': {}", Escape(to), std::strerror(errno));
    return false;
  }
  const std::string place = FollowLinks(to);
  struct stat found {};
  const bool named = ::stat(place.c_str(), &found) == 0 && IsSameFile(status, found);
  if (there && (!S_ISREG(status.st_mode) || !named)) return ExportDirectly(store, path, to, rows);
  return ReplaceByExport(store, path, place, there ? &status : nullptr, rows);
}

void SummariseTransfer(Output& output, std::uint64_t rows, bool complete) {
  Json::Value object;
  object["event"] = "summary";
  object["rows"] = Json::UInt64(rows);
  object["complete"] = complete;
  output.Object(object);
}

}  // namespace

int ImportDb(const std::string& path, const std::string& from, bool json) {
  CatchInterruptions();  // before a pipe's writer is waited for
  const bool standard = from == "-";
  std::FILE* file = standard ? stdin : std::fopen(from.c_str(), "rbe");
  if (file == nullptr) {
    Complain("'{}': {}", Escape(from), std::strerror(errno));
    return kFailed;
  }
  Output output(json);
  int code = kDone;
  {
    Importer importer(file, from, path);
    code = importer.Run();
    if (code == kDone) output.Text("rows stored {}", importer.GetRows());
    SummariseTransfer(output, importer.GetRows(), code == kDone);
  }
  if (!standard) std::fclose(file);
  return output.Flush() ? code : kFailed;
}

int ExportDb(const std::string& path, const std::string& to, bool json) {
  const auto store = OpenToRead(path);
  if (store == nullptr) return kFailed;
  CatchInterruptions();
  std::uint64_t rows = 0;
  if (to == "-" || IsStandardOutput(to))
    return WriteRows(*store, path, stdout, to, rows) ? kDone : kFailed;
  Output output(json);
  const bool done = ExportToFile(*store, path, to, rows);
  if (done) output.Text("rows written {}", rows);
  SummariseTransfer(output, rows, done);
  return output.Flush() && done ? kDone : kFailed;
}

}  // namespace zarn::tool
