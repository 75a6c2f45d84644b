// MetricsAnswer.cpp - see MetricsAnswer.h.
#include "MetricsAnswer.h"

#include <json/reader.h>
#include <json/value.h>

#include <limits>
#include <memory>
#include <stdexcept>

#include "MetricsFields.h"
#include "MetricsJson.h"

namespace zarn::tool {

namespace {

// Far more than any stream needs: its names are the paths of sockets at most.
constexpr std::size_t kMaxMetricsLine = 16384;

Json::CharReaderBuilder MakeMetricsReader() {
  Json::CharReaderBuilder builder;
  Json::CharReaderBuilder::strictMode(&builder.settings_);
  builder["stackLimit"] = 8;
  return builder;
}

// What is not as it must be.
struct WrongMetrics : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// Takes the next line off `text`.
Json::Value TakeObject(std::string_view& text) {
  static const Json::CharReaderBuilder builder = MakeMetricsReader();
  const std::size_t end = text.find('\n');
  if (end == std::string_view::npos) throw WrongMetrics("it ends in the middle");
  if (end > kMaxMetricsLine) throw WrongMetrics("a line is too long");
  const std::string_view line = text.substr(0, end);
  text.remove_prefix(end + 1);
  Json::Value object;
  const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  if (!reader->parse(line.data(), line.data() + line.size(), &object, nullptr) ||
      !object.isObject())
    throw WrongMetrics("a line is no JSON object");
  return object;
}

const Json::Value& GetMember(const Json::Value& object, const char* name,
                             bool (Json::Value::*isRight)() const) {
  const Json::Value& member = object[name];
  if (!(member.*isRight)()) throw WrongMetrics(std::string("it lacks a good '") + name + "'");
  return member;
}

std::uint64_t GetCount(const Json::Value& object, const char* name) {
  return GetMember(object, name, &Json::Value::isUInt64).asUInt64();
}

std::string GetText(const Json::Value& object, const char* name) {
  return GetMember(object, name, &Json::Value::isString).asString();
}

utils::CZARNStreamMetrics ReadStream(const Json::Value& object) {
  utils::CZARNStreamMetrics stream;
  stream.number = GetCount(object, "stream");
  stream.transport = GetText(object, "transport");
  stream.isClient = GetText(object, "role") == "client";
  stream.isConnected = GetMember(object, "connected", &Json::Value::isBool).asBool();
  stream.peer = GetText(object, "peer");
  stream.local = GetText(object, "local");
  for (const utils::MetricsField& field : utils::kMetricsFields)
    field.at(stream) = GetCount(object, field.name);
  stream.counters.lastDisconnectReason =
      GetMember(object, "last_reason", &Json::Value::isInt64).asInt64();
  return stream;
}

}  // namespace

std::string ParseMetrics(std::string_view text, ProcessMetrics& process) try {
  const Json::Value head = TakeObject(text);
  if (GetCount(head, "format") != 1) return "its format is not known here";
  process.omitted = GetCount(head, "omitted");
  process.metrics.isComplete = GetMember(head, "complete", &Json::Value::isBool).asBool();
  const std::uint64_t streams = GetCount(head, "streams");
  if (streams > utils::kMaxStreamsShown) return "it has too many streams";
  process.metrics.streams.clear();
  for (std::uint64_t i = 0; i < streams; ++i)
    process.metrics.streams.push_back(ReadStream(TakeObject(text)));
  return text.empty() ? std::string() : "more follows its end";
} catch (const WrongMetrics& wrong) {
  return wrong.what();
} catch (const Json::Exception&) {
  return "a line is no JSON object";
}

}  // namespace zarn::tool
