// Shm.cpp - zarn shm: the named memory segments of the install root.
#include <fmt/chrono.h>
#include <fmt/ranges.h>
#include <unistd.h>

#include <CLI/App.hpp>
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <memory>

#include "CommandLine.h"
#include "EndpointFiles.h"
#include "Output.h"
#include "Root.h"
#include "ShmFiles.h"

namespace zarn::tool {

namespace {

struct ShmOptions {
  std::string name;
  bool force = false;
  bool json = false;
};

// A file can have a time that no calendar reaches.
std::string FormatTime(std::time_t time) {
  std::tm local{};
  if (::localtime_r(&time, &local) == nullptr) return fmt::format("@{}", time);
  return fmt::format("{:%Y-%m-%d %H:%M:%S}", local);
}

std::string DescribeProcesses(const ShmSegment& segment) {
  std::vector<std::string> texts;
  for (const pid_t process : segment.processes)
    texts.push_back(fmt::format("{} ({})", process, Escape(GetProgramName(process))));
  return texts.empty() ? "-" : fmt::format("{}", fmt::join(texts, ", "));
}

void PrintSegmentObject(Output& output, const ShmSegment& segment) {
  if (!output.IsJson()) return;
  Json::Value object;
  object["event"] = "segment";
  object["name"] = Escape(segment.name);
  object["path"] = Escape(segment.path);
  object["size"] = Json::UInt64(segment.GetSize());
  object["user"] = GetUserName(segment.status.st_uid);
  object["changed"] = Json::Int64(segment.status.st_mtime);
  object["pids"] = Json::Value(Json::arrayValue);
  for (const pid_t process : segment.processes) object["pids"].append(process);
  output.Object(object);
}

// A failure after a complaint.
int ComplainOfSegment(const std::string& name, int error) {
  const char* reason = error == ENOENT   ? "there is no such segment"
                       : error == EINVAL ? "not a regular file"
                                         : std::strerror(error);
  Complain("'{}': {}", Escape(name), reason);
  return kFailed;
}

// False after a complaint.
bool FindUsers(std::span<ShmSegment> segments, const std::string& of) {
  const int error = FindProcesses(segments);
  if (error != 0) Complain("'{}': cannot tell who uses it: {}", Escape(of), std::strerror(error));
  return error == 0;
}

int RunShmLs(const ShmOptions& options) {
  Output output(options.json);
  std::vector<ShmSegment> segments;
  if (const int error = ScanSegments(segments); error != 0)
    return ComplainOfSegment(GetShmDirectory(), error);
  if (!FindUsers(segments, GetShmDirectory())) return kFailed;
  std::size_t width = 8;
  for (const ShmSegment& segment : segments) width = std::max(width, Escape(segment.name).size());
  if (segments.empty()) {
    output.Text("no segments in '{}'", Escape(GetShmDirectory()));
  } else {
    output.Text("{:<{}} {:>12} {:<12} {}", "SEGMENT", width, "BYTES", "USER", "PROCESSES");
  }
  for (const ShmSegment& segment : segments) {
    output.Text("{:<{}} {:>12} {:<12} {}", Escape(segment.name), width, segment.GetSize(),
                GetUserName(segment.status.st_uid), DescribeProcesses(segment));
    PrintSegmentObject(output, segment);
  }
  return output.Flush() ? kDone : kFailed;
}

int RunShmInfo(const ShmOptions& options) {
  ShmSegment segment;
  if (const int error = FindSegment(options.name, segment); error != 0)
    return ComplainOfSegment(options.name, error);
  if (!FindUsers({&segment, 1}, options.name)) return kFailed;
  Output output(options.json);
  output.Text("name       {}", Escape(segment.name));
  output.Text("path       {}", Escape(segment.path));
  output.Text("bytes      {}", segment.GetSize());
  output.Text("user       {}, mode {:o}", GetUserName(segment.status.st_uid),
              segment.status.st_mode & 07777U);
  output.Text("changed    {}", FormatTime(segment.status.st_mtime));
  output.Text("processes  {}", DescribeProcesses(segment));
  PrintSegmentObject(output, segment);
  return output.Flush() ? kDone : kFailed;
}

// Those who have it keep it, but whoever comes later gets another one: as a rule not what is meant.
int RunShmRm(const ShmOptions& options) {
  ShmSegment segment;
  if (const int error = FindSegment(options.name, segment); error != 0)
    return ComplainOfSegment(options.name, error);
  if (!options.force && !FindUsers({&segment, 1}, options.name)) return kFailed;
  if (!segment.processes.empty()) {
    Complain("'{}': in use by process {}; --force removes it all the same", Escape(options.name),
             DescribeProcesses(segment));
    return kFailed;
  }
  if (::unlink(segment.path.c_str()) != 0) return ComplainOfSegment(options.name, errno);
  return kDone;
}

int WithShmRoot(const ShmOptions& options, int (*run)(const ShmOptions&)) {
  const std::string problem = CheckRoot();
  if (problem.empty()) return run(options);
  Complain("{}", problem);
  return kFailed;
}

CLI::App& AddShmVerb(CLI::App& shm, const std::shared_ptr<ShmOptions>& options, Action& action,
                     const char* name, const char* description, int (*run)(const ShmOptions&)) {
  CLI::App& verb = *shm.add_subcommand(name, description);
  verb.fallthrough();
  AddJson(verb, options->json);
  verb.callback(
      [options, run, &action] { action = [options, run] { return WithShmRoot(*options, run); }; });
  return verb;
}

void AddSegmentName(CLI::App& verb, ShmOptions& options) {
  verb.add_option("NAME", options.name, "the name of the segment")
      ->check(CLI::Validator(
          [](const std::string& name) {
            const bool good = !name.empty() && name.find('/') == std::string::npos &&
                              name.find("..") == std::string::npos;
            return good ? std::string()
                        : "'" + name + "' is no name: it is empty, or holds '/' or '..'";
          },
          ""))
      ->required();
}

}  // namespace

void AddShm(CLI::App& app, Action& action) {
  auto options = std::make_shared<ShmOptions>();
  CLI::App& shm = *app.add_subcommand("shm", "look after the named memory segments of the root");
  shm.require_subcommand(1);
  AddJson(shm, options->json);
  SetExamples(shm, "  zarn shm ls\n  zarn shm info cfg");

  CLI::App& ls = AddShmVerb(shm, options, action, "ls", "list them and who uses them", RunShmLs);
  SetExamples(ls, "  zarn shm ls");
  CLI::App& info = AddShmVerb(shm, options, action, "info", "show one of them", RunShmInfo);
  AddSegmentName(info, *options);
  SetExamples(info, "  zarn shm info cfg");
  CLI::App& rm = AddShmVerb(shm, options, action, "rm", "remove the file of one", RunShmRm);
  AddSegmentName(rm, *options);
  rm.add_flag("--force", options->force, "also while processes use it");
  SetExamples(rm, "  zarn shm rm cfg");
}

}  // namespace zarn::tool
