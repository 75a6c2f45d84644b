// Ls.cpp - zarn ls: the endpoints below the root, who serves them, and which are left over.
#include <unistd.h>

#include <CLI/App.hpp>
#include <algorithm>
#include <cstring>
#include <iterator>
#include <memory>

#include "CommandLine.h"
#include "EndpointFiles.h"
#include "Output.h"
#include "Root.h"

namespace zarn::tool {

namespace {

struct LsOptions {
  bool clean = false;
  bool json = false;
};

std::string OrDash(const std::string& text) { return text.empty() ? "-" : text; }

std::string GetUrl(const EndpointFile& file) { return file.scheme + "://" + file.name; }

// What stands for it in the table: its url, or the name of a file that is none.
std::string GetLabel(const EndpointFile& file) {
  return file.state == EndpointState::foreign ? Escape(file.name) : GetUrl(file);
}

void PrintObject(Output& output, const EndpointFile& file) {
  if (!output.IsJson()) return;
  const bool endpoint = file.state != EndpointState::foreign;
  const std::string program = Escape(GetProgramName(file.process));
  Json::Value object;
  object["event"] = "endpoint";
  object["name"] = Escape(file.name);
  object["url"] = endpoint ? Json::Value(GetUrl(file)) : Json::Value();
  object["path"] = Escape(file.path);
  object["state"] = ToText(file.state);
  object["pid"] = file.process != 0 ? Json::Value(file.process) : Json::Value();
  object["user"] = GetUserName(file.status.st_uid);
  object["program"] = program.empty() ? Json::Value() : Json::Value(program);
  output.Object(object);
}

void PrintTable(Output& output, const std::vector<EndpointFile>& files) {
  if (files.empty()) {
    return output.Text("no endpoints in '{}' and '{}'", Escape(GetEndpointDirectory("ipc")),
                       Escape(GetEndpointDirectory("shm")));
  }
  std::size_t width = 8;
  for (const EndpointFile& file : files) width = std::max(width, GetLabel(file).size());
  output.Text("{:<{}} {:<9} {:>8} {:<12} {}", "ENDPOINT", width, "STATE", "PID", "USER", "PROGRAM");
  for (const EndpointFile& file : files) {
    const std::string process = file.process == 0 ? "" : std::to_string(file.process);
    output.Text("{:<{}} {:<9} {:>8} {:<12} {}", GetLabel(file), width, ToText(file.state),
                OrDash(process), GetUserName(file.status.st_uid),
                OrDash(Escape(GetProgramName(file.process))));
  }
}

int ListOne(const char* scheme, const LsOptions& options, std::vector<EndpointFile>& files) {
  int error = ScanEndpoints(scheme, files);
  if (error != 0 || !options.clean) return error;
  error = RemoveStale(scheme, files);
  for (const EndpointFile& file : files) {
    if (file.state != EndpointState::stale || file.status.st_uid == ::geteuid()) continue;
    Complain("'{}' was left: it belongs to {}", Escape(file.path), GetUserName(file.status.st_uid));
  }
  return error;
}

int RunLs(const LsOptions& options) {
  if (const std::string problem = CheckRoot(); !problem.empty()) {
    Complain("{}", problem);
    return kFailed;
  }
  Output output(options.json);
  std::vector<EndpointFile> files;
  int code = kDone;
  for (const char* scheme : {"ipc", "shm"}) {
    std::vector<EndpointFile> found;
    if (const int error = ListOne(scheme, options, found); error != 0) {
      Complain("'{}': {}", Escape(GetEndpointDirectory(scheme)), std::strerror(error));
      code = kFailed;
    }
    std::move(found.begin(), found.end(), std::back_inserter(files));
  }
  for (const EndpointFile& file : files) PrintObject(output, file);
  if (code == kDone || !files.empty()) PrintTable(output, files);
  return output.Flush() ? code : kFailed;
}

}  // namespace

void AddLs(CLI::App& app, Action& action) {
  auto options = std::make_shared<LsOptions>();
  CLI::App& command =
      *app.add_subcommand("ls", "list the endpoints below the root and who serves them");
  command.add_flag("--clean", options->clean,
                   "remove the endpoint files of our own user that nobody serves any more");
  AddJson(command, options->json);
  SetExamples(command, "  zarn ls --clean");
  command.callback([options, &action] { action = [options] { return RunLs(*options); }; });
}

}  // namespace zarn::tool
