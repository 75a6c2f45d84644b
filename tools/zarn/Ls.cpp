// Ls.cpp - zarn ls: the endpoints below the root, who serves them, and which are left over.
#include <unistd.h>

#include <CLI/App.hpp>
#include <algorithm>
#include <cstring>
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

void PrintObject(Output& output, const EndpointFile& file) {
  if (!output.IsJson()) return;
  const bool endpoint = file.state != EndpointState::foreign;
  const std::string program = Escape(GetProgramName(file.process));
  Json::Value object;
  object["event"] = "endpoint";
  object["name"] = Escape(file.name);
  object["url"] = endpoint ? Json::Value("ipc://" + file.name) : Json::Value();
  object["path"] = Escape(file.path);
  object["state"] = ToText(file.state);
  object["pid"] = file.process != 0 ? Json::Value(file.process) : Json::Value();
  object["user"] = GetUserName(file.status.st_uid);
  object["program"] = program.empty() ? Json::Value() : Json::Value(program);
  output.Object(object);
}

void PrintTable(Output& output, const std::string& directory,
                const std::vector<EndpointFile>& files) {
  if (files.empty()) return output.Text("no endpoints in '{}'", directory);
  std::size_t width = 8;
  for (const EndpointFile& file : files) width = std::max(width, Escape(file.name).size());
  output.Text("{:<{}} {:<9} {:>8} {:<12} {}", "ENDPOINT", width, "STATE", "PID", "USER", "PROGRAM");
  for (const EndpointFile& file : files) {
    const std::string process = file.process == 0 ? "" : std::to_string(file.process);
    output.Text("{:<{}} {:<9} {:>8} {:<12} {}", Escape(file.name), width, ToText(file.state),
                OrDash(process), GetUserName(file.status.st_uid),
                OrDash(Escape(GetProgramName(file.process))));
  }
}

int RunLs(const LsOptions& options) {
  if (const std::string problem = CheckRoot(); !problem.empty()) {
    Complain("{}", problem);
    return kFailed;
  }
  Output output(options.json);
  const std::string directory = GetIpcDirectory();
  std::vector<EndpointFile> files;
  int error = ScanEndpoints(directory, files);
  int code = kDone;
  if (error == 0 && options.clean) {
    error = RemoveStale(directory, files);
    for (const EndpointFile& file : files) {
      if (file.state != EndpointState::stale || file.status.st_uid == ::geteuid()) continue;
      Complain("'{}' was left: it belongs to {}", Escape(file.path),
               GetUserName(file.status.st_uid));
    }
  }
  if (error != 0) {
    Complain("'{}': {}", directory, std::strerror(error));
    code = kFailed;
  }
  for (const EndpointFile& file : files) PrintObject(output, file);
  if (code == kDone || !files.empty()) PrintTable(output, directory, files);
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
