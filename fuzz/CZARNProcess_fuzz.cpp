// CZARNProcess_fuzz.cpp - process descriptors from any JSON: text that is parsed, and values that
// no text gives, made from the bytes by themselves.
#include <json/reader.h>
#include <json/value.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <iterator>
#include <limits>
#include <memory>
#include <string>

#include "zarn/utils/CZARNProcess.h"

namespace {

using zarn::utils::CZARNProcess;

void Check(bool condition) {
  if (!condition) std::abort();
}

// --- values ---

class Bytes {
 public:
  Bytes(const std::uint8_t* data, std::size_t size) : at_(data), end_(data + size) {}
  std::uint8_t Next() { return at_ == end_ ? 0 : *at_++; }
  bool IsAtEnd() const { return at_ == end_; }
  std::string Text() {
    const std::size_t wanted = Next() % 16;
    std::string text;
    while (text.size() < wanted && !IsAtEnd()) text += static_cast<char>(Next());
    return text;
  }
  std::int64_t Number() {
    constexpr std::int64_t kEdges[] = {
        0,          -1,          65536,
        2147483647, -2147483648, 2147483648,
        4294967295, -2147483649, std::numeric_limits<long>::min() + 128};
    return kEdges[Next() % std::size(kEdges)] + static_cast<std::int8_t>(Next());
  }

 private:
  const std::uint8_t* at_;
  const std::uint8_t* end_;
};

constexpr const char* kKeys[] = {
    "processname",    "procfullpath", "projectpath",  "pid",        "pno",
    "sysprocessflag", "bootflag",     "restartcount", "isapp",      "processoperation",
    "operationstate", "jsonparam",    "Version",      "Category",   "Origin",
    "Title",          "Desc",         "URL",          "AutoRestart"};

Json::Value MakeValue(Bytes& bytes, int levels);

Json::Value MakeObject(Bytes& bytes, int levels) {
  Json::Value object(Json::objectValue);
  for (int left = bytes.Next() % 24; left > 0 && !bytes.IsAtEnd(); --left) {
    const std::size_t choice = bytes.Next() % (std::size(kKeys) + 1);
    const std::string key = choice < std::size(kKeys) ? kKeys[choice] : bytes.Text();
    object[key] = MakeValue(bytes, levels - 1);
  }
  return object;
}

Json::Value MakeArray(Bytes& bytes, int levels) {
  Json::Value array(Json::arrayValue);
  for (int left = bytes.Next() % 8; left > 0 && !bytes.IsAtEnd(); --left)
    array.append(MakeValue(bytes, levels - 1));
  return array;
}

// A value in so many arrays that some of them are too deep to be read.
Json::Value Wrap(Json::Value value, unsigned times) {
  while (times-- > 0) {
    Json::Value array(Json::arrayValue);
    array.append(Json::Value());
    array[0].swap(value);
    value.swap(array);
  }
  return value;
}

Json::Value MakeValue(Bytes& bytes, int levels) {
  switch (bytes.Next() % 12) {
    case 0:
      return {};
    case 1:
      return {bytes.Next() % 2 == 0};
    case 2:
      return {static_cast<Json::Int64>(bytes.Number())};
    case 3:
      return {static_cast<Json::UInt64>(bytes.Number())};
    case 4:
      return {static_cast<double>(bytes.Number()) / (1 + bytes.Next() % 2)};
    case 5:
      return {std::numeric_limits<double>::quiet_NaN()};
    case 6:
      return levels > 0 ? MakeArray(bytes, levels) : Json::Value();
    case 7:
    case 8:
      return levels > 0 ? MakeObject(bytes, levels) : Json::Value();
    case 9:
      return Wrap(Json::Value(1), levels > 0 ? bytes.Next() * 8U : 0);
    default:
      return {bytes.Text()};
  }
}

// --- what must hold ---

const Json::Value& Member(const Json::Value& value, const char* key) {
  return value.isObject() ? value[key] : Json::Value::nullSingleton();
}

// What a reader of the header expects of a text field.
std::string TextOf(const Json::Value& value, const char* key) {
  const Json::Value& member = Member(value, key);
  return member.isString() ? member.asString() : "";
}

bool IsAscii(const std::string& text) {
  for (const char c : text) {
    if (static_cast<unsigned char>(c) >= 0x80) return false;
  }
  return true;
}

bool IsFixed(const std::string& key) {
  for (const char* fixed : {"processname", "procfullpath", "projectpath", "pid", "sysprocessflag",
                            "bootflag", "restartcount", "processoperation", "operationstate"}) {
    if (key == fixed) return true;
  }
  return false;
}

void CheckFields(const CZARNProcess& process, const Json::Value& in) {
  Check(process.GetProcessName() == TextOf(in, "processname"));
  const bool hasProject = Member(in, "projectpath").isString();
  Check(process.GetProcessPath() == TextOf(in, hasProject ? "projectpath" : "procfullpath"));
  Check(process.GetProcessoperation() == TextOf(in, "processoperation"));
  Check(process.GetOperationstate() == TextOf(in, "operationstate"));
  Check(process.GetIsApp() == TextOf(in, "isapp"));
  const Json::Value& pid = Member(in, "pid");
  Check(process.GetPid() == (pid.isInt() ? pid.asInt() : -1));
  const Json::Value& flag = Member(in, "bootflag");
  Check(process.GetBootFlag() == (flag.isInt() ? static_cast<unsigned>(flag.asInt()) : 0U));
  // No text is kept of parameters that are null or too deep.
  const Json::Value& parameters = Member(in, "jsonparam");
  if (process.GetJsonParam().empty()) return;
  Check(process.GetJsonParam() == parameters.toStyledString());
  Check(process.GetVersion() == TextOf(parameters, "Version"));
  Check(process.GetURL() == TextOf(parameters, "URL"));
}

// Every text of the parameters is there, unless a fixed member has taken its place.
void CheckFlattened(const Json::Value& out, const Json::Value& parameters) {
  if (!parameters.isObject()) return;
  for (const std::string& key : parameters.getMemberNames()) {
    const Json::Value& member = parameters[key];
    if (!IsAscii(key) || IsFixed(key) || !member.isString()) continue;
    Check(out[key].isString());
    if (IsAscii(member.asString())) Check(out[key].asString() == member.asString());
  }
}

// Reading what was written gives the same, but for numbers that are written larger than they are
// read.
void CheckReadAgain(const CZARNProcess& process, Json::Value& out) {
  CZARNProcess again;
  again.FromJson(out);
  Check(again.GetProcessName() == process.GetProcessName());
  Check(again.GetProcessPath() == process.GetProcessPath());
  Check(again.GetPid() == process.GetPid());
  Check(again.GetProcessoperation() == process.GetProcessoperation());
  Check(again.GetOperationstate() == process.GetOperationstate());
  const auto readable = [](unsigned number) { return number <= 0x7FFFFFFFU ? number : 0U; };
  Check(again.GetBootFlag() == readable(process.GetBootFlag()));
  Check(again.GetRestartCount() == readable(process.GetRestartCount()));
  Check(again.GetSysbootflags() == readable(process.GetSysbootflags()));
}

void ReadAndWrite(Json::Value& in) {
  const Json::Value before = in;
  const bool isEqual = in == before;  // a NaN is not equal to itself
  CZARNProcess process;
  process.FromJson(in);
  Check((in == before) == isEqual);
  CheckFields(process, in);
  Json::Value out;
  process.ToJson(out);
  const CZARNProcess copy(process);
  Json::Value same;
  copy.ToJson(same);
  Check(same == out);
  if (out.isNull()) return;
  if (!process.GetJsonParam().empty()) CheckFlattened(out, Member(in, "jsonparam"));
  CheckReadAgain(process, out);
}

void WriteWithParameters(const std::string& text) {
  CZARNProcess process;
  process.SetJsonParam(text);
  Json::Value out;
  process.ToJson(out);
  Check(out.isNull() || out["pid"].asInt() == -1);
}

// The readers of this program go deeper than that of the library, and refuse some texts by
// throwing.
bool Parse(const std::string& text, Json::Value& value) {
  Json::CharReaderBuilder builder;
  builder["stackLimit"] = 5000;
  const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  try {
    return reader->parse(text.data(), text.data() + text.size(), &value, nullptr);
  } catch (const Json::Exception&) {
    return false;
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  Json::Value in;
  if (Parse(text, in)) ReadAndWrite(in);
  WriteWithParameters(text);
  Bytes bytes(data, size);
  Json::Value made = MakeObject(bytes, 4);
  ReadAndWrite(made);
  return 0;
}
