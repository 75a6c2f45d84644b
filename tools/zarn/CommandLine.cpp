// CommandLine.cpp - see CommandLine.h.
#include "CommandLine.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <charconv>
#include <csignal>
#include <memory>
#include <set>
#include <sstream>
#include <vector>

#include "Link.h"
#include "Output.h"

namespace zarn::tool {

namespace {

constexpr const char* kExitCodes = "Exit codes: 0 done, 1 failed, 2 wrong usage";
constexpr const char* kUnreachableCode = ", 3 peer not reachable within --timeout";

constexpr double kMaxSeconds = 1e6;

constexpr const char* kTlsOptions = "Options for tls:// and ptls:// endpoints";

std::vector<CLI::Option*> AddIdentity(CLI::App& command, Security& security) {
  CLI::Option* key = command.add_option("--key", security.key, "the own private key, PEM");
  CLI::Option* certificate =
      command.add_option("--cert", security.certificate,
                         "the own certificate, PEM, and those between it and the root");
  for (CLI::Option* option : {key, certificate})
    option->check(IsNotEmpty())->type_name("FILE")->group(kTlsOptions);
  key->needs(certificate);
  certificate->needs(key);
  return {key, certificate};
}

void RefuseUnlessSecured(const Endpoint& endpoint, const std::vector<CLI::Option*>& options) {
  if (endpoint.scheme == nullptr || endpoint.scheme->isSecured) return;
  for (const CLI::Option* option : options) {
    if (option->count() != 0)
      throw CLI::ValidationError(option->get_name(), "is for tls:// and ptls:// endpoints only");
  }
}

void AddClientSecurity(CLI::App& command, Endpoint& endpoint) {
  Security& security = endpoint.security;
  std::vector<CLI::Option*> options = AddIdentity(command, security);
  options.push_back(
      command
          .add_option("--ca", security.authorities,
                      "certificates of authorities to trust besides the system's, PEM")
          ->check(IsNotEmpty())
          ->type_name("FILE")
          ->group(kTlsOptions));
  options.push_back(
      command
          .add_option("--server-name", security.serverName,
                      "the name that the server's certificate must be for; by default "
                      "the host of the url")
          ->check(IsNotEmpty())
          ->type_name("NAME")
          ->group(kTlsOptions));
  command.parse_complete_callback([&endpoint, options] { RefuseUnlessSecured(endpoint, options); });
}

// Decimal, and nothing else.
template <class Number>
bool ParseAll(const std::string& text, Number& number) {
  const char* end = text.data() + text.size();
  const auto result = std::from_chars(text.data(), end, number);
  return result.ec == std::errc() && result.ptr == end;
}

// What stands before a subcommand on the command line: 'zarn db FILE set'.
std::string PathOf(const CLI::App& command) {
  const CLI::App* parent = command.get_parent();
  if (parent == nullptr) return command.get_name();
  std::string path = PathOf(*parent);
  for (const CLI::Option* option : parent->get_options())
    if (option->get_positional()) path += " " + option->get_name(true);
  return path + " " + command.get_name();
}

std::string NameOf(const CLI::Option& option) {
  return option.get_name() == kDash ? "-" : option.get_name();
}

// As "; needs --key"; nothing when there are no others.
std::string NameOthers(const char* relation, const std::set<CLI::Option*>& others,
                       const char* between) {
  std::set<std::string> names;
  for (const CLI::Option* other : others) names.insert(other->get_name());
  if (names.empty()) return {};
  return fmt::format("; {} {}", relation, fmt::join(names, between));
}

class HelpFormatter : public CLI::Formatter {
 public:
  std::string make_option_name(const CLI::Option* option, bool isPositional) const override {
    return isPositional ? NameOf(*option) : CLI::Formatter::make_option_name(option, false);
  }
  // What the parser adds of other options stands in the description.
  std::string make_option_opts(const CLI::Option* option) const override {
    const std::string text = CLI::Formatter::make_option_opts(option);
    return text.substr(0, std::min(text.find(" Needs:"), text.find(" Excludes:")));
  }
  std::string make_option_desc(const CLI::Option* option) const override {
    return option->get_description() + NameOthers("needs", option->get_needs(), " and ") +
           NameOthers("not with", option->get_excludes(), " or ");
  }
  std::string make_usage(const CLI::App* app, std::string /*name*/) const override {
    return CLI::Formatter::make_usage(app, PathOf(*app));
  }
};

// An argument that is wrong may hold anything.
int RefuseUsage(const CLI::App& command, const std::string& problem) {
  Complain("{}", Escape(problem));
  Complain("see '{} --help'", PathOf(command));
  return kUsage;
}

// After "--file=" the parser would take the next argument for the value. Gives the exit code.
int RefuseCutOptions(const CLI::App& app, int argc, char** argv) {
  const CLI::App* command = &app;
  for (int i = 1; i < argc && std::string_view(argv[i]) != "--"; ++i) {
    std::string name = argv[i];
    const auto named = command->get_subcommands(
        [&](const CLI::App* each) { return !name.empty() && each->get_name() == name; });
    if (!named.empty()) command = named.front();
    if (!name.starts_with("--") || !name.ends_with('=')) continue;
    name.pop_back();
    if (command->get_option_no_throw(name) != nullptr)
      return RefuseUsage(*command, name + ": has no value after '='");
  }
  return kDone;
}

// Where a subcommand is missing, what stands in its place.
std::string NameWrongSubcommand(const CLI::App& app, const CLI::Error& error) {
  const std::vector<std::string> words = app.remaining(true);
  const std::string missing = CLI::RequiredError::Subcommand(1).what();
  if (words.empty() || error.what() != missing) return error.what();
  if (words.front().starts_with('-')) return fmt::format("unknown option '{}'", words.front());
  return fmt::format("'{}' is not a subcommand", words.front());
}

// The subcommand that the parser has come to.
const CLI::App& GetChosen(const CLI::App& app) {
  const std::vector<CLI::App*> chosen = app.get_subcommands();
  return chosen.empty() ? app : GetChosen(*chosen.back());
}

// Prints the help or the version that was asked for, or what is wrong.
int Explain(const CLI::App& app, const CLI::ParseError& error) {
  if (error.get_exit_code() != 0)
    return RefuseUsage(GetChosen(app), NameWrongSubcommand(app, error));
  std::ostringstream asked;
  app.exit(error, asked);
  std::string text = asked.str();
  text.pop_back();  // the output ends the line
  Output output(false);
  output.Text("{}", text);
  return output.Flush() ? kDone : kFailed;
}

}  // namespace

int RunCommandLine(int argc, char** argv) {
  std::signal(SIGPIPE, SIG_IGN);  // a reader that went away is an error of the write
  CLI::App app("Talks to the endpoints of this machine and looks after them.", "zarn");
  app.footer(
      std::string("Endpoints are urls: ipc://1_2 is endpoint 1_2 over local IPC, shm://1_2 over "
                  "shared memory, both below the install root, which the environment "
                  "variable ZARN_ROOT names; tcp://host:7000 is a port over TCP, tls://host:7443 "
                  "one over TLS; ptcp:// and ptls:// are the same over pseudo-TCP.\n") +
      "'zarn SUBCOMMAND --help' shows its options and an example.\n" + kExitCodes +
      kUnreachableCode + ".");
  app.set_version_flag("--version", "zarn " ZARN_VERSION);
  app.require_subcommand(1);
  app.formatter(std::make_shared<HelpFormatter>());

  Action action;
  AddServe(app, action);
  AddSend(app, action);
  AddPing(app, action);
  AddBench(app, action);
  AddLs(app, action);
  AddStat(app, action);
  AddEnv(app, action);
  AddLog(app, action);
  AddDb(app, action);
  AddKv(app, action);
  AddShm(app, action);
  AddRest(app, action);
  if (const int code = RefuseCutOptions(app, argc, argv); code != kDone) return code;
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return Explain(app, error);
  }
  return action();
}

void AddUrl(CLI::App& command, Endpoint& endpoint) {
  command
      .add_option_function<std::string>(
          "URL", [&endpoint](const std::string& text) { ParseEndpoint(text, endpoint); },
          "the endpoint, as ipc://1_2, shm://1_2, tcp://host:7000 or tls://host:7443")
      ->check(CLI::Validator(
          [](const std::string& text) {
            Endpoint parsed;
            return ParseEndpoint(text, parsed);
          },
          ""))
      ->required();
}

void AddServerSecurity(CLI::App& command, Endpoint& endpoint) {
  Security& security = endpoint.security;
  std::vector<CLI::Option*> options = AddIdentity(command, security);
  options.push_back(
      command
          .add_option("--client-ca", security.clientAuthorities,
                      "refuse clients without a certificate of one of these authorities")
          ->check(IsNotEmpty())
          ->type_name("FILE")
          ->group(kTlsOptions));
  command.parse_complete_callback([&endpoint, options] {
    RefuseUnlessSecured(endpoint, options);
    if (endpoint.scheme->isSecured && endpoint.security.certificate.empty())
      throw CLI::ValidationError(endpoint.GetUrl(), "needs --key and --cert: clients ask for them");
  });
}

void AddOwnPair(CLI::App& command, Pair& own) {
  command
      .add_option_function<std::string>(
          "--as", [&own](const std::string& text) { own = *ParsePair(text); },
          "the own endpoint that the peer is told, as 3_4 [0_0]")
      ->check(CLI::Validator(
          [](const std::string& text) {
            return ParsePair(text) ? std::string() : "'" + text + "' is not two numbers like 3_4";
          },
          ""))
      ->type_name("X_Y");
}

void AddJson(CLI::App& command, bool& json) {
  command.add_flag("--json", json, "print one JSON object a line");
}

CLI::Validator IsNotEmpty() {
  return {[](const std::string& text) {
            return text.empty() ? std::string("must not be empty") : std::string();
          },
          ""};
}

CLI::Validator IsNumber(std::uint64_t least, std::uint64_t most) {
  return {[least, most](std::string& text) {
            std::uint64_t number = 0;
            if (!ParseAll(text, number) || number < least || number > most)
              return fmt::format("'{}' is not a number from {} to {}", text, least, most);
            text = std::to_string(number);  // zeros before it would make it octal
            return std::string();
          },
          ""};
}

std::string WithRange(const std::string& description, std::uint64_t least, std::uint64_t most) {
  return most == kUnlimited ? description : fmt::format("{}, {} to {}", description, least, most);
}

CLI::Option& AddSeconds(CLI::App& command, const std::string& name, double& value, double least,
                        double most, const std::string& description) {
  return *command.add_option(name, value, description)
              ->check(CLI::Validator(
                  [least, most](const std::string& text) {
                    double seconds = 0;
                    const bool good = ParseAll(text, seconds) && seconds >= least &&
                                      seconds <= most;  // false for NaN too
                    return good ? std::string()
                                : fmt::format("'{}' is not a number of seconds from {} to {}", text,
                                              least, most);
                  },
                  ""))
              ->type_name("SECONDS")
              ->capture_default_str();
}

void RequireOne(const CLI::App& command) {
  std::vector<std::string> names;
  std::size_t given = 0;
  for (const CLI::Option* option : command.get_options()) {
    if (!option->get_group().starts_with(kExactlyOne)) continue;
    names.push_back(NameOf(*option));
    if (option->count() != 0) ++given;
  }
  if (given != 1) throw CLI::RequiredError::Option(1, 1, given, CLI::detail::join(names));
}

void SetExamples(CLI::App& command, const std::string& examples) {
  const bool waits = command.get_option_no_throw("--timeout") != nullptr;
  command.footer("Example:\n" + examples + "\n" + kExitCodes + (waits ? kUnreachableCode : "") +
                 ".");
}

void AddClientOptions(CLI::App& command, ClientOptions& options) {
  AddUrl(command, options.endpoint);
  AddClientSecurity(command, options.endpoint);
  AddOwnPair(command, options.own);
  AddSeconds(command, "--timeout", options.timeout, 0, kMaxSeconds,
             "how long to wait for the peer to be there, take something, or answer; 0 for ever");
  AddJson(command, options.json);
}

}  // namespace zarn::tool
