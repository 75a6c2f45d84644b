// Log.cpp - zarn log: shows lines of log files, several files merged by time.
#include <CLI/App.hpp>
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <memory>
#include <queue>
#include <utility>

#include "CommandLine.h"
#include "LogFile.h"
#include "LogFilter.h"
#include "LogPrinter.h"
#include "Loop.h"
#include "Output.h"
#include "Root.h"
#include "zarn/utils/zarnutils.h"

namespace zarn::tool {

namespace {

constexpr double kFollowSeconds = 0.1;  // between two looks at the files

struct LogOptions {
  std::vector<std::string> paths;  // empty: those of the logs directory
  bool follow = false;
  std::string grep;
  bool fixed = false;
  std::string since;
  std::string until;
  bool noName = false;
  bool json = false;
  LogFilter filter;
};

// The files that are read, and their lines in the order of their times.
class LogReader {
 public:
  LogReader(const LogOptions& options, Output& output)
      : options_(options), printer_(output, !options.noName) {}

  // Adds the files that are there and not known yet. What is wrong is said once.
  void FindFiles();
  // Shows what there is. Each file's own order stays; the next line is the earliest of those that
  // are next in their files.
  void ShowLines(bool withUnfinished);
  void ShowRestarts();
  void Stop() { stopped_ = true; }

  bool HasFailed() const { return failed_; }
  bool IsStopped() const { return stopped_; }

 private:
  struct Source {
    Source(std::string path, const LogOptions& options)
        : file(std::move(path), options.filter, !options.follow) {}
    LogFile file;
    LogRecord next;
    bool complained = false;
  };

  void Add(const std::string& path);
  void Open(Source& source);
  void CheckErrors();
  void PrintNext(const Source& source) { printer_.Print(source.file.GetPath(), source.next); }

  const LogOptions& options_;
  LogPrinter printer_;
  std::vector<std::unique_ptr<Source>> sources_;
  bool failed_ = false;
  bool stopped_ = false;
};

std::vector<std::string> ListLogs(std::error_code& error) {
  std::vector<std::string> paths;
  auto entry = std::filesystem::directory_iterator(utils::GetZARNRootLogs(), error);
  for (; !error && entry != std::filesystem::directory_iterator(); entry.increment(error))
    if (entry->path().extension() == ".log") paths.push_back(entry->path().string());
  std::sort(paths.begin(), paths.end());
  return paths;
}

void LogReader::FindFiles() {
  std::vector<std::string> paths = options_.paths;
  if (paths.empty()) {
    std::error_code error;
    paths = ListLogs(error);
    if (error && !options_.follow) {
      Complain("'{}': {}", Escape(utils::GetZARNRootLogs()), error.message());
      failed_ = true;
    } else if (paths.empty() && !options_.follow) {
      Complain("no log files in '{}'", Escape(utils::GetZARNRootLogs()));
    }
  }
  const std::size_t known = sources_.size();
  for (const std::string& path : paths) Add(path);
  if (sources_.size() != known) {
    paths.clear();
    for (const auto& source : sources_) paths.push_back(source->file.GetPath());
    printer_.SetPaths(paths);
  }
  for (const auto& source : sources_)
    if (!source->file.IsOpen()) Open(*source);
}

void LogReader::Add(const std::string& path) {
  for (const auto& source : sources_)
    if (source->file.GetPath() == path) return;
  sources_.push_back(std::make_unique<Source>(path, options_));
}

void LogReader::Open(Source& source) {
  const int error = source.file.Open();
  if (error == 0 || source.complained) return;
  source.complained = true;
  const bool later = options_.follow && error == ENOENT;
  if (!later) failed_ = true;
  const char* reason =
      error == EDEADLK ? "left out, since it is the output as well" : std::strerror(error);
  Complain("'{}': {}{}", Escape(source.file.GetPath()), reason, later ? "; waiting for it" : "");
}

void LogReader::ShowLines(bool withUnfinished) {
  using Place = std::pair<Micros, std::size_t>;
  std::priority_queue<Place, std::vector<Place>, std::greater<>> order;
  const auto advance = [&](std::size_t i) {
    if (sources_[i]->file.Next(sources_[i]->next, withUnfinished))
      order.emplace(sources_[i]->next.time, i);
  };
  for (std::size_t i = 0; i < sources_.size(); ++i) advance(i);
  while (!order.empty() && !stopped_) {
    const std::size_t i = order.top().second;
    order.pop();
    Source& source = *sources_[i];
    PrintNext(source);
    // The rest of a message of several lines comes at once.
    const Micros time = source.next.time;
    bool more = false;
    while ((more = source.file.Next(source.next, withUnfinished)) && !source.next.inFormat &&
           source.next.time == time && !stopped_)
      PrintNext(source);
    if (more) order.emplace(source.next.time, i);
  }
  CheckErrors();
}

void LogReader::CheckErrors() {
  for (const auto& source : sources_) {
    if (source->file.GetError() == 0 || source->complained) continue;
    source->complained = failed_ = true;
    Complain("'{}': {}", Escape(source->file.GetPath()), std::strerror(source->file.GetError()));
  }
}

void LogReader::ShowRestarts() {
  for (const auto& source : sources_) {
    LogFile& file = source->file;
    const LogFile::Change change = file.FindChange();
    if (change == LogFile::Change::none) continue;
    // A file that was replaced may have got more lines before.
    const bool readOn = change == LogFile::Change::replaced;
    while (!stopped_ && (readOn ? file.Next(source->next, true) : file.TakeRest(source->next)))
      PrintNext(*source);
    if (file.Open() == 0) printer_.PrintRestart(file.GetPath());
  }
}

int Follow(LogReader& reader, Output& output) {
  Loop loop([&] { reader.Stop(); });
  Timer timer([&] {
    reader.ShowRestarts();
    reader.FindFiles();
    reader.ShowLines(false);
    if (!output.Flush() || IsOutputClosed(0)) reader.Stop();
    if (reader.IsStopped()) loop.Finish(kDone);
  });
  timer.Every(kFollowSeconds);
  return loop.Run();
}

int RunLog(const LogOptions& options) {
  if (options.paths.empty()) {
    if (const std::string problem = CheckRoot(); !problem.empty()) {
      Complain("{}", problem);
      return kFailed;
    }
  }
  Output output(options.json);
  LogReader reader(options, output);
  output.SetHooks({}, [&reader] { reader.Stop(); });
  int code = kDone;
  if (options.follow) {
    code = Follow(reader, output);
  } else {
    reader.FindFiles();
    reader.ShowLines(true);
  }
  if (reader.HasFailed()) code = kFailed;
  const bool written = output.Flush();
  const bool unread = options.follow && output.GetError() == EPIPE;
  return written || unread ? code : kFailed;
}

Micros GetNow() {
  return std::chrono::duration_cast<std::chrono::microseconds>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

CLI::Validator IsTime() {
  return {[](const std::string& text) {
            return ParseTimeOption(text, GetNow())
                       ? std::string()
                       : "'" + text + "' is not a time like 2024-01-31T08:15:02 or 10m";
          },
          ""};
}

CLI::Validator IsPattern(const std::shared_ptr<LogOptions>& options) {
  return {[options](const std::string& text) {
            const std::string problem = LogPattern().Set(text, options->fixed);
            return problem.empty() ? std::string() : "'" + text + "': " + problem;
          },
          ""};
}

void AddFilterOptions(CLI::App& command, const std::shared_ptr<LogOptions>& options) {
  command
      .add_option("--level", options->filter.levels, "only lines of these levels, as ERROR,WARN")
      ->check(IsNotEmpty())
      ->delimiter(',')
      ->allow_extra_args(false)
      ->type_name("LEVEL");
  command.add_option("--function", options->filter.functions, "only lines of these functions")
      ->check(IsNotEmpty())
      ->delimiter(',')
      ->allow_extra_args(false)
      ->type_name("NAME");
  CLI::Option* fixed = command.add_flag("-F,--fixed", options->fixed, "PATTERN is plain text");
  command
      .add_option("--grep", options->grep,
                  "only lines that match this regular expression (as of grep -E), names and time "
                  "included")
      ->check(IsPattern(options))
      ->type_name("PATTERN");
  fixed->needs("--grep");
  command
      .add_option("--since", options->since,
                  "only lines from this time on (UTC): 2024-01-31, 2024-01-31T08:15:02.5, 10m, "
                  "'2 h ago', now")
      ->check(IsTime())
      ->type_name("TIME");
  command.add_option("--until", options->until, "only lines up to this time")
      ->check(IsTime())
      ->type_name("TIME");
}

void FinishOptions(LogOptions& options) {
  const auto& paths = options.paths;
  if (options.follow &&
      std::find(paths.begin(), paths.end(), LogFile::kStandardInput) != paths.end())
    throw CLI::ValidationError("--follow", "is for files, not for '-'");
  const Micros now = GetNow();
  options.filter.since = ParseTimeOption(options.since, now);
  options.filter.until = ParseTimeOption(options.until, now);
  options.filter.pattern.Set(options.grep, options.fixed);
}

}  // namespace

void AddLog(CLI::App& app, Action& action) {
  auto options = std::make_shared<LogOptions>();
  CLI::App& command =
      *app.add_subcommand("log", "show lines of log files, several files merged by time");
  command
      .add_option(
          "FILE", options->paths,
          "log files, '-' for standard input; all *.log of the logs directory of the root unless "
          "given")
      ->check(IsNotEmpty());
  command.add_flag("-f,--follow", options->follow,
                   "go on with lines to come, also of files that are begun anew or come later");
  AddFilterOptions(command, options);
  command.add_flag("--no-name", options->noName,
                   "with several files: do not show which one a line is from");
  AddJson(command, options->json);
  SetExamples(command,
              "  zarn log --level ERROR,WARN --since 10m\n"
              "Lines of one file stay in their order, which is nearly that of their times; several "
              "files are\nmerged as they are read. A line that is not in the format is marked with "
              "'? ' and stays behind\nthe line before it.\n");
  command.callback([options, &action] {
    FinishOptions(*options);
    action = [options] { return RunLog(*options); };
  });
}

}  // namespace zarn::tool
