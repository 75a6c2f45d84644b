// CommandLine.h - the subcommands of the program and what their options have in common.
#pragma once

#include <CLI/App.hpp>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <type_traits>

#include "Endpoint.h"

namespace zarn::tool {

enum ExitCode : int { kDone = 0, kFailed = 1, kUsage = 2, kUnreachable = 3 };

// What the chosen subcommand does, once all arguments are known to be good; gives the exit code.
using Action = std::function<int()>;

int RunCommandLine(int argc, char** argv);

// Each adds one subcommand, which sets `action` when it is the one that was asked for.
void AddServe(CLI::App& app, Action& action);
void AddSend(CLI::App& app, Action& action);
void AddPing(CLI::App& app, Action& action);
void AddBench(CLI::App& app, Action& action);
void AddLs(CLI::App& app, Action& action);
void AddStat(CLI::App& app, Action& action);
void AddEnv(CLI::App& app, Action& action);
void AddLog(CLI::App& app, Action& action);
void AddDb(CLI::App& app, Action& action);
void AddKv(CLI::App& app, Action& action);
void AddShm(CLI::App& app, Action& action);
void AddRest(CLI::App& app, Action& action);

// --- options that several subcommands take; a value that is not good is a usage error ---

void AddUrl(CLI::App& command, Endpoint& endpoint);
void AddServerSecurity(CLI::App& command, Endpoint& endpoint);
void AddOwnPair(CLI::App& command, Pair& own);
void AddJson(CLI::App& command, bool& json);
// For a value that would otherwise be as if it had not been given, such as that of a shell variable
// that is not set.
CLI::Validator IsNotEmpty();
// Whole numbers, decimal also with zeros before them.
constexpr std::uint64_t kUnlimited = UINT64_MAX;
CLI::Validator IsNumber(std::uint64_t least, std::uint64_t most);
std::string WithRange(const std::string& description, std::uint64_t least, std::uint64_t most);
// `value` is a number, or a vector of them.
template <class Value>
CLI::Option& AddNumber(CLI::App& command, const std::string& name, Value& value,
                       std::uint64_t least, std::uint64_t most, const std::string& description) {
  return *command.add_option(name, value, WithRange(description, least, most))
              ->transform(IsNumber(least, most))
              ->type_name("N")
              ->capture_default_str();
}
CLI::Option& AddSeconds(CLI::App& command, const std::string& name, double& value, double least,
                        double most, const std::string& description);
// Of the options in a group that begins so exactly one must be given, which RequireOne looks at
// when all has been parsed. The parser's own option groups take an empty argument for the name of a
// subcommand, theirs.
constexpr const char* kExactlyOne = "Exactly one of these";
constexpr const char* kExactlyOneOrDash = "Exactly one of these, or '-'";
constexpr const char* kExactlyOneOrValue = "Exactly one of these, or VALUE";
// The name for the parser, which takes no other, of an argument that can only be '-'.
constexpr const char* kDash = "DASH";
void RequireOne(const CLI::App& command);
void SetExamples(CLI::App& command, const std::string& examples);

// A subcommand of `command`: `run` is told its options, which have a `json`.
template <class Options>
CLI::App& AddVerb(CLI::App& command, const std::shared_ptr<Options>& options, Action& action,
                  const char* name, const char* description,
                  int (*run)(const std::type_identity_t<Options>&)) {
  CLI::App& verb = *command.add_subcommand(name, description);
  verb.fallthrough();
  AddJson(verb, options->json);
  verb.callback([options, run, &action] { action = [options, run] { return run(*options); }; });
  return verb;
}

// What every subcommand that talks to one peer is told.
struct ClientOptions {
  Endpoint endpoint;
  Pair own;
  double timeout = 5;  // seconds; 0 waits for ever
  bool json = false;
};
void AddClientOptions(CLI::App& command, ClientOptions& options);

}  // namespace zarn::tool
