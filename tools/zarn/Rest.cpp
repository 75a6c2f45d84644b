// Rest.cpp - zarn rest: one request to an HTTP server, and its answer.
#include <strings.h>
#include <unistd.h>

#include <CLI/App.hpp>
#include <CLI/Validators.hpp>
#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <memory>
#include <optional>
#include <string_view>

#include "CommandLine.h"
#include "Loop.h"
#include "Output.h"
#include "StoreBytes.h"
#include "keelbase/CAWThreadManager.h"
#include "shttp/CAWHttpManager.h"
#include "sslutils/CAWSSLManager.h"
#include "zarn/utils/CRestfulClient.h"

namespace zarn::tool {

namespace {

using keelbase::CAWThreadManager;

constexpr const char* kUrlMark = "/zarn/tcpchannel";
constexpr std::string_view kPlainHttp = "http://";
constexpr const char* kPasswordVariable = "ZARN_REST_PASSWORD";
constexpr double kForEver = 1e6;
constexpr long kMinErrorStatus = 400;

struct RestOptions {
  std::string url;
  std::string setting;  // a file
  std::string user;
  std::string passwordFile;
  ValueOptions body;
  std::string authorities;
  double timeout = 30;
  bool json = false;
};

// What is sent, once all files have been read.
struct RestRequest {
  std::string setting;
  std::string body;
  std::string password;
};

class Rest {
 public:
  Rest(const RestOptions& options, RestRequest request)
      : options_(options),
        request_(std::move(request)),
        output_(options.json),
        loop_([this] { Interrupted(); }, CAWThreadManager::TT_MAIN) {}

  int Run();

 private:
  void SetLimits() const;
  bool Trust() const;
  void Answered(const std::string& body, long result);
  void PrintBody(const std::string& body);
  void Interrupted();
  void DropRequest();

  const RestOptions& options_;
  const RestRequest request_;
  Output output_;
  Loop loop_;
  std::unique_ptr<utils::CRestfulClient> client_;
};

int Rest::Run() {
  if (CAWThreadManager::Instance()->GetThread(CAWThreadManager::TT_NETWORK) == nullptr) {
    Complain("no network thread: out of threads, memory or descriptors");
    return kFailed;
  }
  SetLimits();
  if (!Trust()) return kFailed;
  client_ = std::make_unique<utils::CRestfulClient>();
  if (!options_.user.empty()) client_->SetRestfulInfo(options_.user, request_.password);
  client_->StartClient(options_.url, request_.setting, request_.body,
                       [this](const std::string& body, long result) { Answered(body, result); });
  const int code = loop_.Run();
  DropRequest();
  return output_.Flush() ? code : kFailed;
}

void Rest::SetLimits() const {
  const double seconds = options_.timeout > 0 ? options_.timeout : kForEver;
  const auto milliseconds = static_cast<std::uint32_t>(std::max(seconds * 1000, 1.0));
  shttp::CAWHttpLimits limits;
  limits.connectMs = limits.sendMs = limits.answerMs = milliseconds;
  shttp::IAWHttpManager::Instance()->SetLimits(limits);
}

bool Rest::Trust() const {
  if (options_.authorities.empty()) return true;
  const auto result = static_cast<long>(
      sslutils::IAWSSLManager::Instance()->SetTrustedCertificates(options_.authorities));
  if (result == 0) return true;
  Complain("'{}': {}", Escape(options_.authorities), sslutils::DescribeSSLResult(result));
  return false;
}

ExitCode ToExitCode(long error) {
  switch (-error) {
    case EPROTONOSUPPORT:  // these two: what was asked for is not good, and nothing was sent
    case EAFNOSUPPORT:
      return kUsage;
    case ECONNREFUSED:
    case EHOSTUNREACH:
    case ENETUNREACH:
    case EADDRNOTAVAIL:
    case ETIMEDOUT:
      return kUnreachable;
    default:
      return kFailed;
  }
}

void Rest::Answered(const std::string& body, long result) {
  if (result == -EINVAL)
    return loop_.Finish(kUsage);  // the library has told which part is not good
  if (result < 0) {
    Complain("{}: {}", Escape(options_.url), shttp::DescribeHttpResult(result));
    return loop_.Finish(ToExitCode(result));
  }
  output_.Text("status {}", result);
  PrintBody(body);
  Json::Value object;
  object["event"] = "answer";
  object["status"] = Json::Int64(result);
  object["size"] = Json::UInt64(body.size());
  const bool text = IsUtf8(body);
  object[text ? "body" : "body_hex"] = text ? body : ToHex(body);
  output_.Object(object);
  loop_.Finish(result < kMinErrorStatus ? kDone : kFailed);
}

// As it is, but for a terminal, which would take control bytes for commands.
void Rest::PrintBody(const std::string& body) {
  std::string_view left = body;
  if (!left.empty() && left.back() == '\n') left.remove_suffix(1);
  if (body.empty()) return;
  if (::isatty(STDOUT_FILENO) == 0) return output_.Text("{}", left);
  for (bool more = true; more;) {
    const std::size_t end = left.find('\n');
    output_.Text("{}", Escape(left.substr(0, end)));
    more = end != std::string_view::npos;
    if (more) left.remove_prefix(end + 1);
  }
}

void Rest::Interrupted() {
  Complain("interrupted");
  loop_.Finish(kFailed);
}

// Where an answer may still come.
void Rest::DropRequest() {
  CAWThreadManager::Instance()->GetThread(CAWThreadManager::TT_NETWORK)->Call([this] {
    client_ = nullptr;
  });
}

// --- what is asked for ---

// A command line is seen by other users.
std::optional<std::string> GetPassword(const RestOptions& options) {
  if (!options.passwordFile.empty()) {
    ValueOptions file;
    file.file = options.passwordFile;
    std::optional<std::string> text = GetValue(file);
    if (text) text->resize(std::min(text->find('\n'), text->size()));
    return text;
  }
  if (const char* text = std::getenv(kPasswordVariable)) return text;
  if (::isatty(STDIN_FILENO) == 1) {
    if (const char* text = ::getpass("password: ")) return text;
  }
  Complain("no password: set {}, or name a file with --password-file", kPasswordVariable);
  return std::nullopt;
}

int RunRest(const RestOptions& options) {
  RestRequest request;
  if (!options.setting.empty()) {
    ValueOptions file;
    file.file = options.setting;
    const auto setting = GetValue(file);
    if (!setting) return kFailed;
    request.setting = *setting;
  }
  if (!options.user.empty()) {
    const auto password = GetPassword(options);
    if (!password) return kFailed;
    if (password->empty()) {
      Complain("the password is empty");
      return kFailed;
    }
    request.password = *password;
  }
  const auto body = GetValue(options.body);
  if (!body) return kFailed;
  request.body = *body;
  return Rest(options, std::move(request)).Run();
}

void AddContent(CLI::App& command, RestOptions& options) {
  command.add_option("--data", options.body.text, "send this text")
      ->type_name("TEXT")
      ->group(kExactlyOne);
  command
      .add_option("--file", options.body.file, "send what the file holds; '-' is standard input")
      ->check(IsNotEmpty())
      ->type_name("FILE")
      ->group(kExactlyOne);
}

// Whoever names authorities counts on a verified server, so an http:// url is a slip.
void AddAuthorities(CLI::App& command, RestOptions& options) {
  const CLI::Option* authorities =
      command
          .add_option("--ca", options.authorities,
                      "https: authorities to trust besides those of the system")
          ->check(IsNotEmpty())
          ->type_name("FILE");
  command.parse_complete_callback([&options, authorities] {
    if (authorities->count() != 0 &&
        ::strncasecmp(options.url.c_str(), kPlainHttp.data(), kPlainHttp.size()) == 0)
      throw CLI::ValidationError("--ca", "is for https:// urls only");
  });
}

}  // namespace

void AddRest(CLI::App& app, Action& action) {
  auto options = std::make_shared<RestOptions>();
  CLI::App& command = *app.add_subcommand("rest", "send a request to an HTTP server");
  command.add_option("URL", options->url, "http:// or https://, with '/zarn/tcpchannel' in it")
      ->check(CLI::Validator(
          [](const std::string& text) {
            return text.find(kUrlMark) != std::string::npos
                       ? std::string()
                       : "'" + text + "' has no '" + kUrlMark +
                             "' in it: only such urls are served";
          },
          ""))
      ->required();
  AddContent(command, *options);
  command
      .add_option("--setting", options->setting,
                  "a file with the method, POST unless it is there, and 'Name: value' lines")
      ->check(IsNotEmpty())
      ->type_name("FILE");
  command
      .add_option("--user", options->user,
                  std::string("user name; the password is asked for, or stands in ") +
                      kPasswordVariable + " or in a file")
      ->check(IsNotEmpty())
      ->type_name("NAME");
  command.add_option("--password-file", options->passwordFile, "its first line is the password")
      ->check(IsNotEmpty())
      ->type_name("FILE")
      ->needs("--user");
  AddAuthorities(command, *options);
  AddSeconds(command, "--timeout", options->timeout, 0, kForEver,
             "how long connecting, sending and the answer may take, each; 0 for ever");
  AddJson(command, options->json);
  SetExamples(command,
              "  zarn rest http://127.0.0.1:8080/zarn/tcpchannel/orders --data '{\"id\": 7}'");
  command.callback([options, &command, &action] {
    RequireOne(command);
    action = [options] { return RunRest(*options); };
  });
}

}  // namespace zarn::tool
